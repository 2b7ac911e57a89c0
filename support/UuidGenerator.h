#pragma once

#include <string>

namespace Kestrel::Private {

// Random version-4 UUID texts for queue names and temporary documents, drawn
// from one engine per process.
class UuidGenerator {
public:
    static std::string generate();
};

} // namespace Kestrel::Private
