#include "support/Privileges.h"

#include <cap-ng.h>
#include <linux/capability.h>

#include <stdexcept>
#include <string>

namespace Kestrel::Private {

namespace {

constexpr int Kept[] = {CAP_SETUID, CAP_SETGID};

void fail(const std::string& what)
{
    throw std::runtime_error("cannot drop capabilities: " + what);
}

// True when the bounding set still holds more than what is kept: a start
// under the unit has nothing left to drop there, and no CAP_SETPCAP to do it.
bool boundingSetHoldsMore()
{
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        const bool kept = capability == CAP_SETUID || capability == CAP_SETGID;
        if (!kept && capng_have_capability(CAPNG_BOUNDING_SET, capability))
            return true;
    }
    return false;
}

} // namespace

void Privileges::keepOnlyIdentitySwitch()
{
    if (capng_get_caps_process() != 0)
        fail("cannot read them");
    const bool dropBounds = boundingSetHoldsMore();
    for (int capability : Kept) {
        if (!capng_have_capability(CAPNG_PERMITTED, capability))
            fail("capability " + std::to_string(capability) + " is not permitted");
    }
    capng_clear(CAPNG_SELECT_ALL);
    for (int capability : Kept) {
        if (capng_update(CAPNG_ADD, static_cast<capng_type_t>(CAPNG_EFFECTIVE | CAPNG_PERMITTED | CAPNG_BOUNDING_SET),
                         capability)
            != 0)
            fail("cannot keep capability " + std::to_string(capability));
    }
    // The bounding set goes first, while CAP_SETPCAP is still effective.
    const auto sets = static_cast<capng_select_t>(CAPNG_SELECT_CAPS | CAPNG_SELECT_AMBIENT
                                                  | (dropBounds ? CAPNG_SELECT_BOUNDS : 0));
    if (const int status = capng_apply(sets); status != 0)
        fail("capng_apply answered " + std::to_string(status));
}

} // namespace Kestrel::Private
