#include "support/DatabaseManager.h"

#include "support/Diagnostics.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <system_error>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrel::Private {

namespace {

const int openFlags = SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE;
// Calls run side by side, each on its own connection: one that finds the
// file locked by another's short write waits for it rather than fail.
const int busyTimeoutMs = 2000;
const char* const versionRead = "SELECT value FROM version WHERE id=1";
constexpr size_t CachedRowsLimit = 1000;

// Tables and version row commit together: a kill cannot leave tables without a version.
void createSchema001(SQLite::Database& db)
{
    SQLite::Transaction transaction(db);
    db.exec("CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL)");
    db.exec("CREATE TABLE printers (id INTEGER NOT NULL, cups_name TEXT NOT NULL UNIQUE, "
            "user_name TEXT NOT NULL UNIQUE, PRIMARY KEY(\"id\" AUTOINCREMENT))");
    SQLite::Statement write(db, "INSERT INTO version(id, value) VALUES(1,?) ON CONFLICT(id) DO UPDATE SET value=?");
    write.bind(1, "0.0.1");
    if (write.exec() == 0)
        throw std::runtime_error(db.getErrorMsg());
    transaction.commit();
}

const std::map<std::string, std::vector<std::string>> expectedTables = {
    {"0.0.1", {"version", "printers"}},
};

const std::map<std::string, std::function<void(SQLite::Database&)>> migrations = {
    {"0.0.1", createSchema001},
};

SQLite::Database open(const std::string& path)
{
    return SQLite::Database(path, openFlags, busyTimeoutMs);
}

std::string systemError()
{
    return std::strerror(errno);
}

std::string utcStamp()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

// Renames without ever replacing an earlier file: link() refuses a taken name.
std::string moveAside(const std::string& path)
{
    const auto stem = path + ".damaged-" + utcStamp();
    for (int attempt = 1; attempt <= 100; ++attempt) {
        const auto aside = attempt == 1 ? stem : stem + "-" + std::to_string(attempt);
        if (link(path.c_str(), aside.c_str()) == 0) {
            if (unlink(path.c_str()) != 0)
                throw std::runtime_error("failed to move the damaged database " + path + " aside: " + systemError());
            return aside;
        }
        if (errno != EEXIST)
            break;
    }
    throw std::runtime_error("failed to move the damaged database " + path + " aside: " + systemError());
}

// Runs a statement that must change a row; SQLite's own text explains why not.
void execChanging(const std::string& path, const char* sql, std::initializer_list<std::string> binds)
{
    auto db = open(path);
    SQLite::Statement statement(db, sql);
    int position = 1;
    for (const auto& value : binds)
        statement.bind(position++, value);
    if (statement.exec() == 0)
        throw std::runtime_error(db.getErrorMsg());
}

} // namespace

DatabaseManager::DatabaseManager(std::string directory)
    : schemaVersion("0.0.1")
    , databaseDirectory(std::move(directory))
    , databasePath(databaseDirectory + "/printers.db")
{
    openAndValidate();
}

void DatabaseManager::openAndValidate()
{
    namespace fs = std::filesystem;
    bool freshFile = false;
    if (!fs::exists(fs::status(databaseDirectory))) {
        std::error_code error;
        if (!fs::create_directory(databaseDirectory, error))
            throw std::runtime_error("failed to create the database directory: " + error.message());
        freshFile = true;
    } else if (!fs::exists(fs::status(databasePath))) {
        freshFile = true;
    } else if (const auto damage = readFailure(); !damage.empty()) {
        // Nothing in it can be read back, so it is kept for whoever wants to look and
        // this start goes on without it.
        const auto aside = moveAside(databasePath);
        logError("the database " + databasePath + " cannot be read (" + damage + "), moved it to " + aside +
                 " and started a new one");
        freshFile = true;
    } else if (!isValid()) {
        // Deleting the invalid file still fails this start; the next one starts afresh.
        if (std::remove(databasePath.c_str()) == 0)
            throw std::runtime_error("failed to remove the invalid database" + databasePath);
    }

    if (freshFile) {
        createFresh();
        return;
    }
    auto db = open(databasePath);
    for (auto stored = db.execAndGet(versionRead).getString(); stored != schemaVersion;
         stored = db.execAndGet(versionRead).getString())
        migrations.at(stored)(db);
}

// The file is built under another name and renamed into place whole, so a
// kill during the first start leaves either no registry or a complete one.
void DatabaseManager::createFresh()
{
    const auto building = databasePath + ".new";
    std::remove(building.c_str());
    std::remove((building + "-journal").c_str());
    {
        auto db = open(building);
        migrations.at(schemaVersion)(db);
    }
    if (std::rename(building.c_str(), databasePath.c_str()) != 0)
        throw std::runtime_error("failed to create the database " + databasePath + ": " + systemError());
}

// Why the file cannot be read as a database at all; empty when it can. Other
// failures (locked, no permission, I/O) say nothing about the file and go on.
std::string DatabaseManager::readFailure() const
{
    try {
        auto db = open(databasePath);
        // Reads every page, so damage anywhere shows now rather than in a later call.
        SQLite::Statement check(db, "PRAGMA quick_check");
        check.executeStep();
        const auto verdict = check.getColumn(0).getString();
        return verdict == "ok" ? "" : verdict;
    } catch (const SQLite::Exception& error) {
        const int code = error.getErrorCode() & 0xff;
        if (code == SQLITE_NOTADB || code == SQLITE_CORRUPT)
            return error.what();
        throw;
    }
}

bool DatabaseManager::isValid() const
{
    const auto tables = expectedTables.find(schemaVersion);
    if (tables == expectedTables.end())
        return false;
    auto db = open(databasePath);
    for (const auto& table : tables->second) {
        if (!db.tableExists(table))
            return false;
    }
    SQLite::Statement read(db, versionRead);
    // Tables without a version row are as invalid as a missing table.
    if (!read.executeStep())
        return false;
    return migrations.count(read.getColumn(0).getString()) > 0;
}

void DatabaseManager::insert(const std::string& cupsName, const std::string& userName)
{
    if (cupsName.empty() || userName.empty())
        throw std::invalid_argument("invalid argument");
    execChanging(databasePath, "INSERT INTO printers (cups_name, user_name) VALUES (?, ?)", {cupsName, userName});
}

void DatabaseManager::rename(const std::string& oldUserName, const std::string& newUserName)
{
    if (oldUserName.empty() || newUserName.empty())
        throw std::invalid_argument("invalid argument");
    execChanging(databasePath, "UPDATE printers SET user_name = ? where user_name = ?", {newUserName, oldUserName});
}

void DatabaseManager::remove(const std::string& userName)
{
    if (userName.empty())
        throw std::invalid_argument("invalid argument");
    execChanging(databasePath, "DELETE FROM printers WHERE user_name=?", {userName});
}

std::string DatabaseManager::getCupsName(const std::string& userName)
{
    if (userName.empty())
        throw std::invalid_argument("invalid argument");
    std::string cupsName;
    if (const auto rows = smallRegistry()) {
        for (const auto& [cups, user] : *rows) {
            if (user == userName)
                cupsName = cups;
        }
        return cupsName;
    }
    auto db = open(databasePath);
    SQLite::Statement query(db, "SELECT cups_name from printers where user_name=?");
    query.bind(1, userName);
    while (query.executeStep())
        cupsName = query.getColumn(0).getString();
    return cupsName;
}

std::vector<std::string> DatabaseManager::getUserNames()
{
    std::vector<std::string> names;
    if (auto rows = smallRegistry()) {
        for (auto& row : *rows)
            names.push_back(std::move(row.second));
        return names;
    }
    auto db = open(databasePath);
    SQLite::Statement query(db, "SELECT user_name from printers");
    while (query.executeStep())
        names.push_back(query.getColumn(0).getString());
    return names;
}

std::map<std::string, std::string> DatabaseManager::getSavedQueues()
{
    std::map<std::string, std::string> queues;
    if (auto rows = smallRegistry()) {
        for (auto& [cups, user] : *rows)
            queues[std::move(cups)] = std::move(user);
        return queues;
    }
    auto db = open(databasePath);
    SQLite::Statement query(db, "SELECT cups_name, user_name from printers");
    while (query.executeStep())
        queues[query.getColumn(0).getString()] = query.getColumn(1).getString();
    return queues;
}

// SQLite counts every committed write in the file's header (offset 24), and
// a rolled-back write leaves the count as it was.
std::optional<DatabaseManager::Stamp> DatabaseManager::stamp() const
{
    const int fd = ::open(databasePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return std::nullopt;
    struct stat status {};
    unsigned char counter[4] = {};
    const bool read = ::fstat(fd, &status) == 0 && ::pread(fd, counter, sizeof counter, 24) == sizeof counter;
    ::close(fd);
    if (!read)
        return std::nullopt;
    return Stamp{status.st_dev, status.st_ino,
                 static_cast<uint32_t>(counter[0]) << 24 | counter[1] << 16 | counter[2] << 8 | counter[3]};
}

std::optional<DatabaseManager::Rows> DatabaseManager::smallRegistry()
{
    // Taken before the rows are read: a write in between shows in the next stamp.
    const auto now = stamp();
    {
        std::lock_guard<std::mutex> lock(cacheMutex);
        if (now && cachedStamp == now)
            return cachedRows;
    }
    auto db = open(databasePath);
    SQLite::Statement query(db, "SELECT cups_name, user_name from printers LIMIT ?");
    query.bind(1, static_cast<int64_t>(CachedRowsLimit + 1));
    Rows read;
    while (query.executeStep())
        read.emplace_back(query.getColumn(0).getString(), query.getColumn(1).getString());
    std::optional<Rows> small;
    if (read.size() <= CachedRowsLimit)
        small = std::move(read);
    std::lock_guard<std::mutex> lock(cacheMutex);
    cachedStamp = now;
    cachedRows = small;
    return small;
}

void DatabaseManager::clear()
{
    auto db = open(databasePath);
    db.exec("DELETE from printers");
}

} // namespace Kestrel::Private
