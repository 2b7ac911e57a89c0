#pragma once

#include <ru/zorv/PrinterManager_proxy.h>
#include <ru/zorv/PrintingService_proxy.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// Both interfaces of the print service's one object, with the two signals
// handed to whoever asked for them.
class PrintServiceProxy final
    : public sdbus::ProxyInterfaces<ru::zorv::PrinterManager_proxy, ru::zorv::PrintingService_proxy>
{
public:
    using SavedPrintersHandler = std::function<void(const std::vector<std::string>&)>;
    using AccessiblePrintersHandler = std::function<void(const std::map<std::string, std::string>&)>;

    explicit PrintServiceProxy(sdbus::IConnection& connection);
    ~PrintServiceProxy();

    // Fails with the bus's own error when nobody owns the service name.
    void ping();
    void onSavedPrinters(SavedPrintersHandler handler);
    void onAccessiblePrinters(AccessiblePrintersHandler handler);

private:
    void onAccessiblePrintersChanged(const std::map<std::string, std::string>& printers) override;
    void onSavedPrintersChanged(const std::vector<std::string>& printers) override;

    SavedPrintersHandler savedPrintersHandler_;
    AccessiblePrintersHandler accessiblePrintersHandler_;
};

} // namespace Kestrel::Client
