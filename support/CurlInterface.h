#pragma once

#include <cstddef>
#include <string>

typedef void CURL;

namespace Kestrel::Private {

// Owns one libcurl easy handle, used only to unescape device URIs.
class CurlInterface {
public:
    CurlInterface() = default;
    CurlInterface(const CurlInterface&) = delete;
    CurlInterface& operator=(const CurlInterface&) = delete;
    virtual ~CurlInterface();

    // Once, before any thread starts: the library's process-wide set-up is
    // not safe to run from several threads at once, as workers would.
    static void setUpLibrary();

    virtual bool init();
    virtual std::string unescape(const char* text, std::size_t length);

private:
    CURL* handle = nullptr;
};

} // namespace Kestrel::Private
