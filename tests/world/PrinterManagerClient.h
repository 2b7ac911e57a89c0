#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ru/zorv/PrinterManager_proxy.h"

namespace Kestrel::Test {

// A bus client of ru.zorv.PrinterManager on "ru.zorv.print" that keeps
// every signal it receives, for tests to wait on.
class PrinterManagerClient final : public sdbus::ProxyInterfaces<ru::zorv::PrinterManager_proxy> {
public:
    PrinterManagerClient();
    ~PrinterManagerClient();

    std::vector<std::vector<std::string>> savedPrintersSignals() const;
    std::vector<std::map<std::string, std::string>> accessiblePrintersSignals() const;

private:
    void onAccessiblePrintersChanged(const std::map<std::string, std::string>& printers) override;
    void onSavedPrintersChanged(const std::vector<std::string>& printers) override;

    mutable std::mutex mutex;
    std::vector<std::vector<std::string>> savedPrinters;
    std::vector<std::map<std::string, std::string>> accessiblePrinters;
};

} // namespace Kestrel::Test
