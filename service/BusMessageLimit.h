#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Kestrel::Private {

// dbus-daemon's default for its largest message. It disconnects a sender
// that goes over it, which would cost the daemon its name, so what does
// not fit is refused with an error instead.
constexpr std::size_t BusMessageLimit = std::size_t{32} << 20;
// Header and framing of a message.
constexpr std::size_t BusHeaderRoom = std::size_t{64} << 10;

constexpr bool fitsOnBus(std::size_t bodyBytes)
{
    return bodyBytes <= BusMessageLimit - BusHeaderRoom;
}

// A list of texts in a message body: length, bytes, terminator, alignment.
inline std::size_t wireSize(const std::vector<std::string>& texts)
{
    std::size_t bytes = 4;
    for (const auto& text : texts)
        bytes += 4 + text.size() + 1 + 3;
    return bytes;
}

} // namespace Kestrel::Private
