#pragma once

#include <map>
#include <string>
#include <vector>

namespace Kestrel::Private {

// The registry of saved printers: CUPS queue name to the name users see.
// Every operation opens its own connection; the file is the only state.
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
    void openAndValidate();
    void createFresh();
    std::string readFailure() const;
    bool isValid() const;

    std::string schemaVersion;
    std::string databaseDirectory;
    std::string databasePath;
};

} // namespace Kestrel::Private
