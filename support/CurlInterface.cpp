#include "support/CurlInterface.h"

#include <curl/curl.h>

#include <algorithm>
#include <climits>
#include <memory>

namespace Kestrel::Private {

namespace {

struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};

} // namespace

void CurlInterface::setUpLibrary()
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

CurlInterface::~CurlInterface()
{
    if (handle)
        curl_easy_cleanup(handle);
}

bool CurlInterface::init()
{
    CURL* fresh = curl_easy_init();
    if (!fresh)
        return false;
    if (handle)
        curl_easy_cleanup(handle);
    handle = fresh;
    return true;
}

std::string CurlInterface::unescape(const char* text, std::size_t length)
{
    int unescapedLength = 0;
    std::unique_ptr<char, CurlFree> unescaped(
        curl_easy_unescape(handle, text, static_cast<int>(std::min<std::size_t>(length, INT_MAX)), &unescapedLength));
    // A null result throws the library's logic error, as the C-string
    // constructor does.
    return std::string(static_cast<const char*>(unescaped.get()));
}

} // namespace Kestrel::Private
