#include "support/DatabaseManager.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <unistd.h>

using Kestrel::Private::DatabaseManager;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

struct DatabaseManagerTest : ::testing::Test {
    DatabaseManagerTest()
    {
        fs::remove_all(scratch);
        fs::create_directories(scratch);
    }
    ~DatabaseManagerTest() override { fs::remove_all(scratch); }
    std::string storedVersion() const
    {
        return SQLite::Database(file).execAndGet("SELECT value FROM version WHERE id=1").getString();
    }

    const fs::path scratch = fs::temp_directory_path() / ("kestrel-db-" + std::to_string(::getpid()));
    const std::string directory = (scratch / "print").string();
    const std::string file = directory + "/printers.db";
};

TEST_F(DatabaseManagerTest, FirstStartCreatesTheSchemaAndLaterStartsKeepTheRows)
{
    EXPECT_THAT([&] { DatabaseManager{directory + "/print"}; },
                ThrowsMessage<std::runtime_error>("failed to create the database directory: No such file or directory"));
    DatabaseManager registry(directory);
    EXPECT_EQ(storedVersion(), "0.0.1");
    EXPECT_TRUE(registry.getUserNames().empty());
    EXPECT_EQ(registry.getCupsName("Office"), "");
    registry.insert("uuid-1", "Office");
    EXPECT_EQ(DatabaseManager(directory).getCupsName("Office"), "uuid-1");
    registry.clear();
    EXPECT_TRUE(registry.getUserNames().empty());
}

TEST_F(DatabaseManagerTest, InvalidFileFailsTheStartThatRemovesItAndTheNextStartsFresh)
{
    const std::string version = "CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL);";
    const std::string printers = "CREATE TABLE printers (id INTEGER);";
    fs::create_directories(directory);
    // No printers table; a version no migration knows; tables without a version row.
    for (const auto& sql : {version + "INSERT INTO version VALUES (1, '0.0.1')",
                            version + printers + "INSERT INTO version VALUES (1, '9.9.9')", version + printers}) {
        SQLite::Database(file, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(sql);
        EXPECT_THAT([&] { DatabaseManager{directory}; },
                    ThrowsMessage<std::runtime_error>("failed to remove the invalid database" + file));
        EXPECT_FALSE(fs::exists(file));
        DatabaseManager{directory};
        EXPECT_EQ(storedVersion(), "0.0.1");
        fs::remove(file);
    }
}

TEST_F(DatabaseManagerTest, RefusedChangesKeepTheRowsAndNamesAreStoredVerbatim)
{
    DatabaseManager registry(directory);
    const std::string hostile = "'); DROP TABLE printers; --", huge(1 << 20, 'x');
    registry.insert("uuid-1", "Office");
    registry.insert("uuid-2", hostile);
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { registry.insert("", "Name"); }, [&] { registry.insert("uuid-3", ""); },
             [&] { registry.rename("", "New"); }, [&] { registry.rename("Office", ""); },
             [&] { registry.remove(""); }, [&] { registry.getCupsName(""); }})
        EXPECT_THAT(call, ThrowsMessage<std::invalid_argument>("invalid argument"));
    EXPECT_THROW(registry.insert("uuid-1", "Other"), SQLite::Exception);
    EXPECT_THROW(registry.insert("uuid-3", "Office"), SQLite::Exception);
    EXPECT_THROW(registry.rename("Office", hostile), SQLite::Exception);
    EXPECT_THROW(registry.rename("Ghost", "New"), std::runtime_error);
    EXPECT_THROW(registry.remove("Ghost"), std::runtime_error);
    EXPECT_THAT(registry.getUserNames(), UnorderedElementsAre("Office", hostile));
    EXPECT_EQ(registry.getCupsName(hostile), "uuid-2");
    registry.rename("Office", "Office");
    registry.rename("Office", "Lab");
    registry.remove(hostile);
    registry.insert("uuid-3", huge);
    EXPECT_EQ(registry.getCupsName(huge), "uuid-3");
    EXPECT_EQ(registry.getCupsName("Lab"), "uuid-1");
    EXPECT_EQ(registry.getUserNames().size(), 2u);
}

} // namespace
