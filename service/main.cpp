#include "manager/PrinterManagerInterface.h"
#include "printing/PrintJobsInterface.h"
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
    // One print core for both printing interfaces: one job limit, one record of owners.
    auto printer = std::make_shared<Kestrel::Private::PrintController>();
    Kestrel::Private::PrintingServiceInterface printing(*connection, objectPath, printer);
    Kestrel::Private::PrintJobsInterface jobs(*connection, objectPath, printer);
    connection->enterEventLoop();
    return 0;
}
