#include "tests/common/FailureText.h"
#include "tests/printing/PdfDocument.h"
#include "tests/world/RunningServiceTest.h"

#include <ru/zorv/PrintingService_proxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <thread>

using namespace Kestrel::Test;
namespace fs = std::filesystem;
using ::testing::HasSubstr;

static std::string errorOf(const std::function<void()>& call)
{
    return busErrorOf("ru.zorv.PrintingService.Error", call);
}

namespace {

using Options = std::map<std::string, std::string>;

class PrintClient : public sdbus::ProxyInterfaces<ru::zorv::PrintingService_proxy> {
public:
    PrintClient()
        : ProxyInterfaces("ru.zorv.print", "/ru/zorv/print")
    {
        registerProxy();
    }
    ~PrintClient() { unregisterProxy(); }
};

// Documents the simulated printer has kept so far; a job still arriving
// is a .prn file until it is complete.
std::vector<fs::path> printedDocuments()
{
    std::vector<fs::path> documents;
    for (const auto& name : World::printedDocuments()) {
        const auto path = fs::path(World::printerSpool()) / name;
        if (path.extension() == ".pdf")
            documents.push_back(path);
    }
    return documents;
}

class PrintingWorldTest : public RunningServiceTest {
protected:
    void SetUp() override
    {
        RunningServiceTest::SetUp();
        if (!serviceUp())
            return;
        PrinterManagerClient().addPrinter(World::printerUri(), "Office", {});
        ASSERT_TRUE(World::waitUntilQueuesReady());
        documents = fs::path(World::dir()) / "documents";
        fs::remove_all(documents);
        fs::create_directories(documents);
        client = std::make_unique<PrintClient>();
    }

    std::string document(const std::string& relative, int pages)
    {
        const auto path = documents / relative;
        fs::create_directories(path.parent_path());
        writePdf(path.string(), pages);
        return path.string();
    }

    std::unique_ptr<PrintClient> client;
    fs::path documents;
};

TEST_F(PrintingWorldTest, PrintedPdfReachesThePrinterWithItsPagesAndTheFileIsGone)
{
    const auto path = document("doc.pdf", 3);
    client->print(path, "Office", {});
    EXPECT_FALSE(fs::exists(path));
    ASSERT_TRUE(waitFor([] { return printedDocuments().size() == 1; }, std::chrono::seconds(60)));
    EXPECT_TRUE(waitFor([] { return countPdfPages(printedDocuments().front().string()) == 3; }));
}

TEST_F(PrintingWorldTest, NonAsciiPathsArePrintedFromAUuidCopyAndTheOriginalStays)
{
    const auto path = document("отчёты/квартал.pdf", 1);
    const auto bare = document("отчёты/без-расширения", 1);
    client->print(path, "Office", {{"copies", "1"}});
    client->print(bare, "Office", {});
    EXPECT_TRUE(fs::exists(path));
    EXPECT_TRUE(fs::exists(bare));
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path()))
        left.push_back(entry.path().filename().string());
    EXPECT_THAT(left, ::testing::UnorderedElementsAre("квартал.pdf", "без-расширения"));
    EXPECT_TRUE(waitFor([] { return printedDocuments().size() == 2; }, std::chrono::seconds(60)));
}

TEST_F(PrintingWorldTest, RefusedJobsExplainThemselvesAndKeepTheCallersFiles)
{
    const auto path = document("doc.pdf", 1);
    EXPECT_EQ(errorOf([&] { client->print(path, "Office", {{"zoom", "2"}, {"color", "x"}}); }),
              "Unknown option 'color'. List of supported options:\n\t - copies\n\t - fit-to-page\n\t - media\n"
              "\t - orientation-requested\n\t - outputorder\n\t - page-ranges\n\t - print-color-mode\n\t - sides\n");
    EXPECT_EQ(errorOf([&] { client->print(path, "Nobody", {}); }), "cups_name is empty");
    EXPECT_EQ(errorOf([&] { client->print(path, "", {}); }), "invalid argument");
    EXPECT_EQ(errorOf([&] { client->print("/nowhere/doc.pdf", "Office", {}); }), "file /nowhere/doc.pdf doesn't exist.");
    // Arguments swapped: the printer name is taken for the file.
    EXPECT_EQ(errorOf([&] { client->print("Office", path, {}); }), "file Office doesn't exist.");
    EXPECT_TRUE(fs::exists(path));

    const auto unicode = document("чужой/doc.pdf", 1);
    EXPECT_EQ(errorOf([&] { client->print(unicode, "Nobody", {}); }), "cups_name is empty");
    EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(unicode).parent_path()), fs::directory_iterator()), 2);
}

TEST_F(PrintingWorldTest, TenClientsPrintingAtOnceOnTwoPrintersAllGetThrough)
{
    PrinterManagerClient().addPrinter(World::printerUri(), "Home", {});
    ASSERT_TRUE(World::waitUntilQueuesReady());
    std::vector<std::thread> clients;
    std::vector<std::string> failures(10);
    for (int i = 0; i < 10; ++i) {
        const auto path = document("job-" + std::to_string(i) + ".pdf", 1 + i % 3);
        clients.emplace_back([&, i, path] {
            try {
                PrintClient own;
                own.print(path, i % 2 ? "Office" : "Home", {});
            } catch (const std::exception& error) {
                failures[i] = error.what();
            }
        });
    }
    for (auto& thread : clients)
        thread.join();
    EXPECT_THAT(failures, ::testing::Each(""));
    ASSERT_TRUE(waitFor([] { return printedDocuments().size() >= 10; }, std::chrono::seconds(120)));
    EXPECT_EQ(printedDocuments().size(), 10u) << ::testing::PrintToString(World::printedDocuments());
}

} // namespace
