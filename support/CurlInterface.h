#pragma once

#include <cstddef>
#include <string>

typedef void CURL;

namespace Kestrel::Private {

// Owns one libcurl easy handle, used only to unescape device URIs. The
// library is loaded, and the handle made, by the first text with an escape;
// unescape fails with init's message when either cannot be.
class CurlInterface {
public:
    CurlInterface() = default;
    CurlInterface(const CurlInterface&) = delete;
    CurlInterface& operator=(const CurlInterface&) = delete;
    virtual ~CurlInterface();

    virtual bool init();
    virtual std::string unescape(const char* text, std::size_t length);

private:
    CURL* handle = nullptr;
};

} // namespace Kestrel::Private
