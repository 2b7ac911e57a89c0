#pragma once

#include <ru/zorv/PrintJobs_proxy.h>
#include <ru/zorv/PrinterManager_proxy.h>
#include <ru/zorv/PrintingService_proxy.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// The three interfaces of the print service's one object, with their
// signals handed to whoever asked for them.
class PrintServiceProxy final : public sdbus::ProxyInterfaces<ru::zorv::PrinterManager_proxy,
                                    ru::zorv::PrintingService_proxy, ru::zorv::PrintJobs_proxy>
{
public:
    using JobHandler = std::function<void(const std::map<std::string, sdbus::Variant>&)>;

    using SavedPrintersHandler = std::function<void(const std::vector<std::string>&)>;
    using AccessiblePrintersHandler = std::function<void(const std::map<std::string, std::string>&)>;
    using PrinterStateHandler =
        std::function<void(const std::string&, const std::map<std::string, sdbus::Variant>&)>;

    explicit PrintServiceProxy(sdbus::IConnection& connection);
    ~PrintServiceProxy();

    // Fails with the bus's own error when nobody owns the service name.
    void ping();
    // A call that changes printers; `interactive` lets polkit have an agent
    // ask the person at the terminal for the authorization.
    template <typename... Arguments>
    void change(bool interactive, const std::string& method, const Arguments&... arguments)
    {
        auto call = getProxy().createMethodCall("ru.zorv.PrinterManager", method);
        (call << ... << arguments);
        if (interactive)
            allowInteractiveAuthorization(call);
        getProxy().callMethod(call);
    }
    void onSavedPrinters(SavedPrintersHandler handler);
    void onAccessiblePrinters(AccessiblePrintersHandler handler);
    void onJob(JobHandler handler);
    void onPrinterState(PrinterStateHandler handler);

private:
    static void allowInteractiveAuthorization(sdbus::MethodCall& call);
    void onAccessiblePrintersChanged(const std::map<std::string, std::string>& printers) override;
    void onSavedPrintersChanged(const std::vector<std::string>& printers) override;
    void onJobChanged(const std::map<std::string, sdbus::Variant>& job) override;
    void onPrinterStateChanged(const std::string& printer, const std::map<std::string, sdbus::Variant>& state) override;

    SavedPrintersHandler savedPrintersHandler_;
    AccessiblePrintersHandler accessiblePrintersHandler_;
    JobHandler jobHandler_;
    PrinterStateHandler printerStateHandler_;
};

} // namespace Kestrel::Client
