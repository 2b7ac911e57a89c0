#pragma once

#include "support/CallerCredentials.h"
#include "support/Document.h"

#include <string>

namespace Kestrel::Private {

// A caller's documents, handled only as the caller could handle them: each
// operation runs on the calling thread under the caller's file-system
// identity, so the kernel judges every access. A caller with the daemon's
// own uid (root) keeps the daemon's rights.
// Failures are runtime errors whose text names the path and the reason.
class CallerFiles {
public:
    explicit CallerFiles(CallerCredentials caller);

    // A non-empty regular file starting with "%PDF-", opened for reading.
    // Never opens anything else for reading (no FIFO, socket or device).
    Document open(const std::string& path) const;
    // As open, and the caller may remove it afterwards.
    Document openRemovable(const std::string& path) const;
    // A new file of that name beside the document (never replacing one),
    // owned by the caller, with the document's contents.
    Document copy(const Document& document, const std::string& name) const;
    bool exists(const Document& document) const;
    // Nothing there any more is no failure.
    void remove(const Document& document) const;

private:
    CallerCredentials caller;
};

} // namespace Kestrel::Private
