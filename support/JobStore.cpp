#include "support/JobStore.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <filesystem>

namespace Kestrel::Private {

namespace {

// Calls from several workers may write at once.
constexpr int BusyTimeoutMs = 5000;
const char* const Columns = "SELECT id, owner, queue, printer, document, created FROM jobs ";

SQLite::Database open(const std::string& path)
{
    SQLite::Database db(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, BusyTimeoutMs);
    db.exec("CREATE TABLE IF NOT EXISTS jobs (id INTEGER PRIMARY KEY, owner INTEGER NOT NULL, queue TEXT NOT NULL, "
            "printer TEXT NOT NULL, document TEXT NOT NULL, created INTEGER NOT NULL)");
    return db;
}

JobRecord read(SQLite::Statement& row)
{
    return {row.getColumn(0).getInt(),
            static_cast<uid_t>(row.getColumn(1).getInt64()),
            row.getColumn(2).getString(),
            row.getColumn(3).getString(),
            row.getColumn(4).getString(),
            row.getColumn(5).getInt64()};
}

} // namespace

JobStore::JobStore(std::string directory)
    : path(directory + "/jobs.db")
{
    std::filesystem::create_directories(directory);
    open(path);
}

void JobStore::add(const JobRecord& job)
{
    auto db = open(path);
    SQLite::Transaction transaction(db);
    // A scheduler started afresh counts its job ids from 1 again.
    SQLite::Statement insert(db, "INSERT OR REPLACE INTO jobs VALUES (?, ?, ?, ?, ?, ?)");
    insert.bind(1, job.id);
    insert.bind(2, static_cast<int64_t>(job.owner));
    insert.bind(3, job.queue);
    insert.bind(4, job.printer);
    insert.bind(5, job.document);
    insert.bind(6, job.created);
    insert.exec();
    SQLite::Statement trim(db, "DELETE FROM jobs WHERE owner = ?1 AND id NOT IN "
                               "(SELECT id FROM jobs WHERE owner = ?1 ORDER BY created DESC, id DESC LIMIT ?2)");
    trim.bind(1, static_cast<int64_t>(job.owner));
    trim.bind(2, KeptPerOwner);
    trim.exec();
    transaction.commit();
}

std::optional<JobRecord> JobStore::find(int id) const
{
    auto db = open(path);
    SQLite::Statement query(db, std::string(Columns) + "WHERE id = ?");
    query.bind(1, id);
    if (!query.executeStep())
        return std::nullopt;
    return read(query);
}

std::vector<JobRecord> JobStore::list(std::optional<uid_t> owner) const
{
    auto db = open(path);
    SQLite::Statement query(db, std::string(Columns) + (owner ? "WHERE owner = ? " : "") +
                                    "ORDER BY created DESC, id DESC");
    if (owner)
        query.bind(1, static_cast<int64_t>(*owner));
    std::vector<JobRecord> jobs;
    while (query.executeStep())
        jobs.push_back(read(query));
    return jobs;
}

} // namespace Kestrel::Private
