#pragma once

#include <memory>
#include <string>

namespace Kestrel::Private {

class CupsRequestHandler;

// Asks a network device directly whether it speaks IPP, and names the IPP
// URI under which it can be added.
class IppChecker {
public:
    IppChecker(const std::string& deviceUri, std::shared_ptr<CupsRequestHandler> handler);
    virtual ~IppChecker() = default;

    virtual bool isIppSupported();
    virtual bool isIppsSupported();
    virtual std::string getIppUri();

private:
    bool probe(int port);

    std::shared_ptr<CupsRequestHandler> handler;
    std::string ippUri;
    std::string address;
};

} // namespace Kestrel::Private
