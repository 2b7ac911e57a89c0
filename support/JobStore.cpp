#include "support/JobStore.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <filesystem>
#include <memory>

namespace Kestrel::Private {

namespace {

// Calls from several workers may write at once.
constexpr int BusyTimeoutMs = 5000;
const char* const Columns = "SELECT id, owner, queue, printer, document, created FROM jobs ";

// The calling thread's connection to the file, kept for the thread's life:
// a print reads and writes the store on the same worker, and workers end
// a few seconds after their last call, closing it.
thread_local std::string threadPath;
thread_local std::unique_ptr<SQLite::Database> threadConnection;

SQLite::Database& connection(const std::string& path)
{
    if (!threadConnection || threadPath != path) {
        threadConnection.reset();
        threadConnection = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE, BusyTimeoutMs);
        // A commit appends to the log without waiting for the disk; a power
        // cut may lose the newest records, never the file.
        threadConnection->exec("PRAGMA synchronous=NORMAL");
        threadPath = path;
    }
    return *threadConnection;
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
    SQLite::Database db(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, BusyTimeoutMs);
    // Kept in the file: every later connection writes through the log.
    db.exec("PRAGMA journal_mode=WAL");
    db.exec("CREATE TABLE IF NOT EXISTS jobs (id INTEGER PRIMARY KEY, owner INTEGER NOT NULL, queue TEXT NOT NULL, "
            "printer TEXT NOT NULL, document TEXT NOT NULL, created INTEGER NOT NULL)");
    // An owner's jobs newest first, straight from the index: listing, counting and trimming.
    db.exec("CREATE INDEX IF NOT EXISTS jobs_by_owner ON jobs (owner, created, id)");
}

void JobStore::closeThreadConnection()
{
    threadConnection.reset();
}

void JobStore::add(const JobRecord& job)
{
    auto& db = connection(path);
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
    // Walks the owner's index entries past the newest ones: usually one row goes.
    SQLite::Statement trim(db, "DELETE FROM jobs WHERE id IN (SELECT id FROM jobs WHERE owner = ?1 "
                               "ORDER BY created DESC, id DESC LIMIT -1 OFFSET ?2)");
    trim.bind(1, static_cast<int64_t>(job.owner));
    trim.bind(2, KeptPerOwner);
    trim.exec();
    transaction.commit();
}

std::optional<JobRecord> JobStore::find(int id) const
{
    auto& db = connection(path);
    SQLite::Statement query(db, std::string(Columns) + "WHERE id = ?");
    query.bind(1, id);
    if (!query.executeStep())
        return std::nullopt;
    return read(query);
}

size_t JobStore::count(uid_t owner) const
{
    auto& db = connection(path);
    SQLite::Statement query(db, "SELECT count(*) FROM jobs WHERE owner = ?");
    query.bind(1, static_cast<int64_t>(owner));
    query.executeStep();
    return static_cast<size_t>(query.getColumn(0).getInt64());
}

std::vector<JobRecord> JobStore::list(std::optional<uid_t> owner) const
{
    auto& db = connection(path);
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
