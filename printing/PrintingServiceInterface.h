#pragma once

#include "printing/PrintController.h"

#include <ru/zorv/PrintingService_adaptor.h>

#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Private {

// ru.zorv.PrintingService on the bus.
class PrintingServiceInterface : public sdbus::AdaptorInterfaces<ru::zorv::PrintingService_adaptor> {
public:
    PrintingServiceInterface(sdbus::IConnection& connection, std::string path,
                             std::shared_ptr<PrintController> controller);
    ~PrintingServiceInterface();

private:
    void print(const std::string& path, const std::string& printer,
               const std::map<std::string, std::string>& parameters) override;

    std::shared_ptr<PrintController> controller;
};

} // namespace Kestrel::Private
