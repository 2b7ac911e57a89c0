#pragma once

namespace Kestrel::Private {

// The daemon's own capabilities. Acting as a caller needs only switching the
// file-system identity; anything more (reading any file, following another
// process's /proc links) would be root's rights lent to every caller.
class Privileges {
public:
    // Keeps CAP_SETUID and CAP_SETGID, effective and permitted, and drops
    // every other capability from every set, the bounding set included,
    // whoever started the daemon. Throws when that cannot be done.
    static void keepOnlyIdentitySwitch();
};

} // namespace Kestrel::Private
