#include "support/CurlInterface.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// libcurl is loaded on the first unescape, not at start-up: linked, it
// brings some thirty libraries (TLS, HTTP/2, LDAP, SSH) whose relocated
// tables alone cost an idle daemon more private memory than its own data.
struct CurlLibrary {
    decltype(&curl_easy_init) easyInit = nullptr;
    decltype(&curl_easy_cleanup) easyCleanup = nullptr;
    decltype(&curl_easy_unescape) easyUnescape = nullptr;
    decltype(&curl_free) free = nullptr;
};

template <typename Function>
bool find(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

// Null when the library or one of its functions cannot be found. Loaded
// once and kept: the TLS library it maps can never be unloaded anyway.
const CurlLibrary* curlLibrary()
{
    static CurlLibrary library;
    static bool loaded = false;
    static std::once_flag once;
    std::call_once(once, [] {
        void* handle = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
        if (!handle)
            return;
        decltype(&curl_global_init) globalInit = nullptr;
        loaded = find(handle, "curl_global_init", globalInit) && find(handle, "curl_easy_init", library.easyInit)
                 && find(handle, "curl_easy_cleanup", library.easyCleanup)
                 && find(handle, "curl_easy_unescape", library.easyUnescape) && find(handle, "curl_free", library.free)
                 // No transfer is ever made; this libcurl sets TLS up all the same.
                 && globalInit(CURL_GLOBAL_NOTHING) == CURLE_OK;
    });
    return loaded ? &library : nullptr;
}

} // namespace

CurlInterface::~CurlInterface()
{
    if (handle)
        curlLibrary()->easyCleanup(handle);
}

// The handle is made when a text first needs one: most device URIs carry no
// escape, and for those the library is never loaded.
bool CurlInterface::init()
{
    if (handle)
        curlLibrary()->easyCleanup(handle);
    handle = nullptr;
    return true;
}

std::string CurlInterface::unescape(const char* text, std::size_t length)
{
    const auto bounded = std::min<std::size_t>(length, INT_MAX);
    // Without a '%' there is nothing to decode: the library would hand back
    // the same bytes, read up to the first NUL like any C string.
    if (!std::memchr(text, '%', bounded))
        return std::string(text, ::strnlen(text, bounded));
    const CurlLibrary* curl = curlLibrary();
    if (curl && !handle)
        handle = curl->easyInit();
    if (!handle)
        throw std::runtime_error("failed to init curl for uri parsing");
    const auto release = [curl](char* unescaped) { curl->free(unescaped); };
    int unescapedLength = 0;
    std::unique_ptr<char, decltype(release)> unescaped(
        curl->easyUnescape(handle, text, static_cast<int>(bounded), &unescapedLength), release);
    // A null result throws the library's logic error, as the C-string
    // constructor does.
    return std::string(static_cast<const char*>(unescaped.get()));
}

} // namespace Kestrel::Private
