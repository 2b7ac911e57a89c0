#include "printing/PrintingServiceInterface.h"

#include "service/PooledCall.h"
#include "support/CallerCredentials.h"

namespace Kestrel::Private {

PrintingServiceInterface::PrintingServiceInterface(sdbus::IConnection& connection, std::string path,
                                                   std::shared_ptr<PrintController> controller)
    : AdaptorInterfaces(connection, std::move(path))
    , controller(std::move(controller))
{
    registerAdaptor();
}

PrintingServiceInterface::~PrintingServiceInterface()
{
    refuseCalls();
    finishCalls(std::chrono::steady_clock::time_point::max());
    unregisterAdaptor();
}

void PrintingServiceInterface::refuseCalls()
{
    prints.stop(std::chrono::steady_clock::now());
}

bool PrintingServiceInterface::finishCalls(std::chrono::steady_clock::time_point deadline)
{
    return prints.stop(deadline);
}

void PrintingServiceInterface::print(sdbus::Result<>&& result, std::string path, std::string printer,
                                     std::map<std::string, std::string> parameters)
{
    const char* const errorName = "ru.zorv.PrintingService.Error";
    CallerCredentials caller;
    try {
        // The document is handled with the rights of whoever sent this call;
        // the bus tells who only while the call is being dispatched.
        const auto& object = getObject();
        caller = CallerCredentials::ofSender(object.getConnection(),
                                             object.getCurrentlyProcessedMessage()->getSender());
    } catch (const std::exception& error) {
        return result.returnError(sdbus::Error(errorName, error.what()));
    }
    PooledCall(prints, errorName).run(std::move(result), [this, caller, path, printer, parameters] {
        controller->print(caller, path, printer, parameters);
    });
}

} // namespace Kestrel::Private
