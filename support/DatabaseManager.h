#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Kestrel::Private {

// The registry of saved printers: CUPS queue name to the name users see.
// Every write opens its own connection; the file is the only state. Reads
// of a registry of a device's size are answered from the last rows read
// while the file's change counter says nothing was written since, so they
// cost a few system calls.
class DatabaseManager {
public:
    explicit DatabaseManager(std::string directory = "/var/lib/print");
    virtual ~DatabaseManager() = default;

    virtual void insert(const std::string& cupsName, const std::string& userName);
    virtual void rename(const std::string& oldUserName, const std::string& newUserName);
    virtual void remove(const std::string& userName);
    virtual std::string getCupsName(const std::string& userName);
    virtual std::vector<std::string> getUserNames();
    // Every saved printer: CUPS name to user name.
    virtual std::map<std::string, std::string> getSavedQueues();
    void clear();

    const std::string& path() const { return databasePath; }

private:
    // Which file, and how often SQLite has changed it.
    struct Stamp {
        dev_t device = 0;
        ino_t inode = 0;
        uint32_t changes = 0;
        bool operator==(const Stamp& other) const
        {
            return device == other.device && inode == other.inode && changes == other.changes;
        }
    };
    using Rows = std::vector<std::pair<std::string, std::string>>;

    std::optional<Stamp> stamp() const;
    // Every (cups_name, user_name) row in the table's order; none for a
    // registry too big to keep in memory.
    std::optional<Rows> smallRegistry();
    void openAndValidate();
    void createFresh();
    std::string readFailure() const;
    bool isValid() const;

    std::string schemaVersion;
    std::string databaseDirectory;
    std::string databasePath;
    std::mutex cacheMutex;
    std::optional<Stamp> cachedStamp;
    std::optional<Rows> cachedRows;
};

} // namespace Kestrel::Private
