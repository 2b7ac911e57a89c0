#include "support/UuidGenerator.h"

#include <mutex>
#include <random>

namespace Kestrel::Private {

std::string UuidGenerator::generate()
{
    static std::mutex engineMutex;
    static std::mt19937 engine{std::random_device{"default"}()};
    static const char digits[] = "0123456789abcdef";

    std::lock_guard<std::mutex> lock(engineMutex);
    std::uniform_int_distribution<int> any(0, 15);
    std::uniform_int_distribution<int> variant(8, 11);
    auto append = [&](std::string& text, int count) {
        for (int i = 0; i < count; ++i)
            text += digits[any(engine)];
    };

    std::string uuid;
    uuid.reserve(36);
    append(uuid, 8);
    uuid += "-";
    append(uuid, 4);
    uuid += "-4";
    append(uuid, 3);
    uuid += "-";
    uuid += digits[variant(engine)];
    append(uuid, 3);
    uuid += "-";
    append(uuid, 12);
    return uuid;
}

} // namespace Kestrel::Private
