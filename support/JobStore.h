#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kestrel::Private {

// Who sent a job, where to and what: the scheduler knows every job as
// "defaultuser", so this is the only record of its owner.
struct JobRecord {
    int id = 0;
    uid_t owner = 0;
    std::string queue;
    std::string printer;
    std::string document;
    int64_t created = 0;
};

// The owners of recent jobs, in a file beside the registry so that they
// outlive a restart; only the newest jobs of each owner are kept.
class JobStore {
public:
    static constexpr int KeptPerOwner = 200;

    explicit JobStore(std::string directory = "/var/lib/print");

    void add(const JobRecord& job);
    std::optional<JobRecord> find(int id) const;
    // How many records the owner has.
    size_t count(uid_t owner) const;
    // Newest first; every owner's when none is given.
    std::vector<JobRecord> list(std::optional<uid_t> owner) const;
    // For a thread that keeps living but will not read the store for a
    // while: its connection (page cache, log index) is given back.
    static void closeThreadConnection();

private:
    std::string path;
};

} // namespace Kestrel::Private
