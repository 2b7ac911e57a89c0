#include "printing/PrintingServiceInterface.h"

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
    unregisterAdaptor();
}

void PrintingServiceInterface::print(const std::string& path, const std::string& printer,
                                     const std::map<std::string, std::string>& parameters)
{
    try {
        // The document is handled with the rights of whoever sent this call.
        const auto& object = getObject();
        const auto caller = CallerCredentials::ofSender(object.getConnection(),
                                                        object.getCurrentlyProcessedMessage()->getSender());
        controller->print(caller, path, printer, parameters);
    } catch (const std::exception& error) {
        throw sdbus::Error("ru.zorv.PrintingService.Error", error.what());
    }
}

} // namespace Kestrel::Private
