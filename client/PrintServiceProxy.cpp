#include "PrintServiceProxy.h"

#include <systemd/sd-bus.h>

namespace Kestrel::Client {

namespace {

// sdbus-c++ 1.2 cannot set the header flag; the message it wraps can.
struct RawMessage : sdbus::Message {
    static sd_bus_message* of(sdbus::Message& message)
    {
        return static_cast<sd_bus_message*>(message.*(&RawMessage::msg_));
    }
};

} // namespace

PrintServiceProxy::PrintServiceProxy(sdbus::IConnection& connection)
    : ProxyInterfaces(connection, "ru.zorv.print", "/ru/zorv/print")
{
    registerProxy();
}

PrintServiceProxy::~PrintServiceProxy()
{
    unregisterProxy();
}

void PrintServiceProxy::ping()
{
    getProxy().callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
}

void PrintServiceProxy::allowInteractiveAuthorization(sdbus::MethodCall& call)
{
    sd_bus_message_set_allow_interactive_authorization(RawMessage::of(call), 1);
}

void PrintServiceProxy::onSavedPrinters(SavedPrintersHandler handler)
{
    savedPrintersHandler_ = std::move(handler);
}

void PrintServiceProxy::onAccessiblePrinters(AccessiblePrintersHandler handler)
{
    accessiblePrintersHandler_ = std::move(handler);
}

void PrintServiceProxy::onJob(JobHandler handler)
{
    jobHandler_ = std::move(handler);
}

void PrintServiceProxy::onPrinterState(PrinterStateHandler handler)
{
    printerStateHandler_ = std::move(handler);
}

void PrintServiceProxy::onPrinterStateChanged(
    const std::string& printer, const std::map<std::string, sdbus::Variant>& state)
{
    if (printerStateHandler_)
        printerStateHandler_(printer, state);
}

void PrintServiceProxy::onJobChanged(const std::map<std::string, sdbus::Variant>& job)
{
    if (jobHandler_)
        jobHandler_(job);
}

void PrintServiceProxy::onAccessiblePrintersChanged(const std::map<std::string, std::string>& printers)
{
    if (accessiblePrintersHandler_)
        accessiblePrintersHandler_(printers);
}

void PrintServiceProxy::onSavedPrintersChanged(const std::vector<std::string>& printers)
{
    if (savedPrintersHandler_)
        savedPrintersHandler_(printers);
}

} // namespace Kestrel::Client
