// The least an idle daemon built on the same libraries can cost: a system bus
// connection with its loop on a thread, one registry read through SQLiteCpp
// and one queue listing through libcups on a thread of its own, as the
// daemon's scheduler watcher makes. Prints "ready" and waits to be killed.
// The one argument is a scratch directory for its database.
#include <SQLiteCpp/SQLiteCpp.h>
#include <cups/cups.h>
#include <sdbus-c++/sdbus-c++.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: dependency-floor SCRATCH-DIRECTORY\n");
        return 2;
    }
    auto connection = sdbus::createSystemBusConnection();
    connection->enterEventLoopAsync();
    {
        SQLite::Database db(std::string(argv[1]) + "/floor.db", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        db.exec("CREATE TABLE IF NOT EXISTS printers (id INTEGER PRIMARY KEY, cups_name TEXT NOT NULL UNIQUE, "
                "user_name TEXT NOT NULL UNIQUE)");
        SQLite::Statement read(db, "SELECT user_name FROM printers ORDER BY id");
        while (read.executeStep())
            read.getColumn(0).getString();
    }
    std::thread([] {
        ippDelete(cupsDoRequest(CUPS_HTTP_DEFAULT, ippNewRequest(CUPS_GET_PRINTERS), "/"));
        std::printf("ready\n");
        std::fflush(stdout);
    }).join();
    pause();
    return 0;
}
