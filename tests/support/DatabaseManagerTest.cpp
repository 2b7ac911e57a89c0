#include "support/DatabaseManager.h"
#include "tests/common/FailureText.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

using Kestrel::Private::DatabaseManager;
using Kestrel::Test::failureOf;
namespace fs = std::filesystem;

namespace {

class DatabaseManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        scratch = fs::temp_directory_path() / ("kestrel-db-" + std::to_string(::getpid()));
        fs::remove_all(scratch);
        fs::create_directories(scratch);
        directory = (scratch / "print").string();
    }
    void TearDown() override { fs::remove_all(scratch); }

    std::string file() const { return directory + "/printers.db"; }

    fs::path scratch;
    std::string directory;
};

TEST_F(DatabaseManagerTest, FirstStartCreatesDirectoryFileTablesAndVersion)
{
    DatabaseManager registry(directory);
    ASSERT_TRUE(fs::is_regular_file(file()));
    SQLite::Database db(file());
    EXPECT_TRUE(db.tableExists("version"));
    EXPECT_TRUE(db.tableExists("printers"));
    EXPECT_EQ(db.execAndGet("SELECT value FROM version WHERE id=1").getString(), "0.0.1");
    EXPECT_TRUE(registry.getUserNames().empty());
    EXPECT_EQ(registry.getCupsName("nobody"), "");
    EXPECT_NO_THROW(registry.clear());
}

TEST_F(DatabaseManagerTest, ExistingValidFileKeepsItsRowsAcrossRestarts)
{
    DatabaseManager(directory).insert("uuid-1", "Office");
    DatabaseManager again(directory);
    EXPECT_EQ(again.getCupsName("Office"), "uuid-1");
}

TEST_F(DatabaseManagerTest, InvalidFileIsRemovedByAFailingStartAndRecreatedByTheNext)
{
    auto corrupt = [&](const char* sql) {
        fs::create_directories(directory);
        fs::remove(file());
        SQLite::Database db(file(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        db.exec(sql);
    };
    for (const char* sql : {"CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL)",
                            "CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL);"
                            "CREATE TABLE printers (id INTEGER);"
                            "INSERT INTO version VALUES (1, '9.9.9')",
                            "CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL);"
                            "CREATE TABLE printers (id INTEGER)"}) {
        corrupt(sql);
        EXPECT_EQ(failureOf<std::runtime_error>([&] { DatabaseManager{directory}; }),
                  "failed to remove the invalid database" + file());
        EXPECT_FALSE(fs::exists(file()));
        DatabaseManager fresh(directory);
        SQLite::Database db(file());
        EXPECT_TRUE(db.tableExists("printers"));
        EXPECT_EQ(db.execAndGet("SELECT value FROM version WHERE id=1").getString(), "0.0.1");
    }
}

TEST_F(DatabaseManagerTest, DirectoryThatCannotBeCreatedFailsConstruction)
{
    EXPECT_EQ(failureOf<std::runtime_error>([&] { DatabaseManager{(scratch / "missing" / "print").string()}; }),
              "failed to create the database directory: No such file or directory");
}

TEST_F(DatabaseManagerTest, EmptyArgumentsAreRefusedBeforeTheFileIsTouched)
{
    DatabaseManager registry(directory);
    registry.insert("uuid-1", "Office");
    const auto before = fs::last_write_time(file());
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { registry.insert("", "Name"); },
             [&] { registry.insert("uuid-2", ""); },
             [&] { registry.rename("", "New"); },
             [&] { registry.rename("Office", ""); },
             [&] { registry.remove(""); },
             [&] { registry.getCupsName(""); },
         })
        EXPECT_EQ(failureOf<std::invalid_argument>(call), "invalid argument");
    EXPECT_EQ(fs::last_write_time(file()), before);
    EXPECT_EQ(registry.getUserNames(), std::vector<std::string>{"Office"});
}

TEST_F(DatabaseManagerTest, DuplicateNamesAreRefusedAndTheFirstRowStays)
{
    DatabaseManager registry(directory);
    registry.insert("uuid-1", "Office");
    EXPECT_THROW(registry.insert("uuid-1", "Other"), SQLite::Exception);
    EXPECT_THROW(registry.insert("uuid-2", "Office"), SQLite::Exception);
    EXPECT_EQ(registry.getUserNames(), std::vector<std::string>{"Office"});
    EXPECT_EQ(registry.getCupsName("Office"), "uuid-1");
}

TEST_F(DatabaseManagerTest, RenameToTakenNameKeepsBothRows)
{
    DatabaseManager registry(directory);
    registry.insert("uuid-1", "Office");
    registry.insert("uuid-2", "Home");
    EXPECT_THROW(registry.rename("Office", "Home"), SQLite::Exception);
    EXPECT_THAT(registry.getUserNames(), ::testing::UnorderedElementsAre("Office", "Home"));
    EXPECT_NO_THROW(registry.rename("Office", "Office"));
    registry.rename("Office", "Lab");
    EXPECT_EQ(registry.getCupsName("Lab"), "uuid-1");
    EXPECT_EQ(registry.getCupsName("Office"), "");
}

TEST_F(DatabaseManagerTest, UnknownNamesCannotBeRenamedOrRemoved)
{
    DatabaseManager registry(directory);
    EXPECT_THROW(registry.rename("Ghost", "New"), std::runtime_error);
    EXPECT_THROW(registry.remove("Ghost"), std::runtime_error);
    registry.insert("uuid-1", "Office");
    registry.remove("Office");
    EXPECT_TRUE(registry.getUserNames().empty());
}

TEST_F(DatabaseManagerTest, HostileNamesAreStoredVerbatim)
{
    DatabaseManager registry(directory);
    const std::string quote = "'); DROP TABLE printers; --";
    const std::string huge(1 << 20, 'x');
    registry.insert("uuid-1", quote);
    registry.insert("uuid-2", huge);
    EXPECT_EQ(registry.getCupsName(quote), "uuid-1");
    EXPECT_EQ(registry.getCupsName(huge), "uuid-2");
}

} // namespace
