#include "cups/CupsInterface.h"

#include "cups/CupsRequestHandler.h"
#include "support/CurlInterface.h"
#include "support/IppChecker.h"
#include "support/Uri.h"

#include <cups/adminutil.h>
#include <cups/cups.h>

#include <memory>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

struct DestinationSearch {
    std::string_view wanted;
    bool found = false;
};

int visitDestination(void* context, unsigned /*flags*/, cups_dest_t* destination)
{
    auto* search = static_cast<DestinationSearch*>(context);
    if (destination->name && search->wanted == destination->name)
        search->found = true;
    return 1;
}

void addDevice(DeviceMap& devices, const std::string& uri, const std::string& makeAndModel)
{
    if (makeAndModel == "Unknown" || !Uri::hasSupportedPrefix(uri))
        return;
    Uri parsed(uri, std::make_shared<CurlInterface>());
    const int32_t protocol = parsed.protocol();
    if (protocol == ProtocolUsb || protocol == ProtocolIpp || protocol == ProtocolIpps) {
        devices.emplace(uri, makeAndModel);
        return;
    }
    IppChecker checker(uri, std::make_shared<CupsRequestHandler>());
    if (checker.isIppSupported() || checker.isIppsSupported())
        devices.emplace(checker.getIppUri(), makeAndModel);
}

void visitDevice(const char* /*deviceClass*/, const char* /*deviceId*/, const char* /*deviceInfo*/,
                 const char* makeAndModel, const char* uri, const char* /*location*/, void* context)
{
    if (!makeAndModel || !uri)
        return;
    // Nothing may unwind through the library's frames: a device that fails
    // to parse is simply left out.
    try {
        addDevice(*static_cast<DeviceMap*>(context), uri, makeAndModel);
    } catch (...) {
    }
}

} // namespace

bool CupsInterface::destinationExists(std::string_view cupsName)
{
    if (cupsName.empty())
        throw std::runtime_error("cups_name is empty");
    DestinationSearch search{cupsName};
    cupsEnumDests(CUPS_DEST_FLAGS_NONE, -1, nullptr, 0, 0, visitDestination, &search);
    return search.found;
}

DeviceMap CupsInterface::getDevices()
{
    DeviceMap devices;
    // Deprecated in libcups but still the scheduler's device listing.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    ipp_status_t status = cupsGetDevices(CUPS_HTTP_DEFAULT, 10000, nullptr, nullptr, visitDevice, &devices);
#pragma GCC diagnostic pop
    if (status != IPP_STATUS_OK)
        throw std::runtime_error(cupsErrorText());
    return devices;
}

bool CupsInterface::isStopped(std::string_view cupsName)
{
    CupsRequestHandler handler;
    try {
        handler.prepareRequest(std::string(cupsName), IPP_OP_GET_PRINTER_ATTRIBUTES);
        handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {"printer-state"});
        handler.executeAdminRequest();
        return handler.getAttributes({"printer-state"})["printer-state"] == std::vector<std::string>{"stopped"};
    } catch (const std::exception&) {
        return false;
    }
}

void CupsInterface::resume(std::string_view cupsName)
{
    CupsRequestHandler handler;
    handler.prepareRequest(std::string(cupsName), IPP_OP_RESUME_PRINTER);
    handler.executeAdminRequest();
}

} // namespace Kestrel::Private
