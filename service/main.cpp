#include "manager/PrinterManagerInterface.h"
#include "printing/PrintingServiceInterface.h"
#include "support/Privileges.h"

#include <sdbus-c++/sdbus-c++.h>

int main()
{
    const char* const objectPath = "/ru/zorv/print";
    // Before any call is served, whoever started the daemon.
    Kestrel::Private::Privileges::keepOnlyIdentitySwitch();
    auto connection = sdbus::createSystemBusConnection("ru.zorv.print");
    Kestrel::Private::PrinterManagerInterface manager(*connection, objectPath);
    Kestrel::Private::PrintingServiceInterface printing(*connection, objectPath);
    connection->enterEventLoop();
    return 0;
}
