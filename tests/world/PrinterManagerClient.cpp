#include "tests/world/PrinterManagerClient.h"

namespace Kestrel::Test {

PrinterManagerClient::PrinterManagerClient()
    : ProxyInterfaces("ru.zorv.print", "/ru/zorv/print")
{
    registerProxy();
}

PrinterManagerClient::~PrinterManagerClient()
{
    unregisterProxy();
}

std::vector<std::vector<std::string>> PrinterManagerClient::savedPrintersSignals() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return savedPrinters;
}

std::vector<std::map<std::string, std::string>> PrinterManagerClient::accessiblePrintersSignals() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return accessiblePrinters;
}

void PrinterManagerClient::onAccessiblePrintersChanged(const std::map<std::string, std::string>& printers)
{
    std::lock_guard<std::mutex> lock(mutex);
    accessiblePrinters.push_back(printers);
}

void PrinterManagerClient::onSavedPrintersChanged(const std::vector<std::string>& printers)
{
    std::lock_guard<std::mutex> lock(mutex);
    savedPrinters.push_back(printers);
}

} // namespace Kestrel::Test
