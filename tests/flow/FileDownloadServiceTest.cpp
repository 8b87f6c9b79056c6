#include "flow/FileDownloadService.hpp"

#include "FakeHTTP.hpp"
#include "FakePlatform.hpp"
#include "TestTools.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using kelvane::testing::readFile;

namespace {

namespace fs = std::filesystem;

class FileDownload : public ::testing::Test {
protected:
    FileDownload() {
        http->temporaryDirectory = temporary.path();
        http->downloadBody = "body";
        platform.http = http;
        platform.documents->directory = documents.path();
        platform.install();
    }

    // Each completion's path, and after it the log lines written from then on.
    std::vector<std::optional<std::string>> download(const std::string& url) {
        std::vector<std::optional<std::string>> calls;
        std::size_t logged = log.lines().size();
        FileDownloadService().fileDownload(*URL::make(url), [&](std::optional<std::string> path) {
            EXPECT_EQ(log.lines().size(), logged + calls.size()) << "a completion after its log line";
            calls.push_back(std::move(path));
        });
        auto lines = log.lines();
        newLines.assign(lines.begin() + static_cast<std::ptrdiff_t>(logged), lines.end());
        return calls;
    }

    using Calls = std::vector<std::optional<std::string>>;
    fakes::FakePlatform platform;
    fakes::LogCapture log;
    kelvane::testing::TempDir documents, temporary;
    std::shared_ptr<fakes::FakeHTTP> http = std::make_shared<fakes::FakeHTTP>();
    std::vector<std::string> newLines;
};

TEST_F(FileDownload, SavesUnderTheURLsNameAndASecondDownloadReplacesIt) {
    std::string saved = documents.path().string() + "/report.pdf";
    EXPECT_EQ(download("https://files.test/docs/report.pdf?v=2"), Calls{saved});
    EXPECT_EQ(newLines, std::vector<std::string>{"File downloaded successfully. Location: file://" + saved});
    EXPECT_EQ(http->requests().at(0).url.absoluteString(), "https://files.test/docs/report.pdf?v=2");

    http->downloadBody = "second";
    EXPECT_EQ(download("https://other.test/report.pdf"), Calls{saved});
    EXPECT_EQ(readFile(saved), "second");
    EXPECT_EQ(std::distance(fs::directory_iterator(documents.path()), {}), 1);
    EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(FileDownload, ABlankStaysEncodedInTheAnswerButNotOnDisk) {
    EXPECT_EQ(download("https://files.test/My%20Report.pdf"), Calls{documents.path().string() + "/My%20Report.pdf"});
    EXPECT_EQ(readFile(documents.path() / "My Report.pdf"), "body");
}

TEST_F(FileDownload, NoFileOrNoDocumentsDirectoryGivesNothing) {
    http->downloadBody.reset();
    http->error = Error{"NSURLErrorDomain", -1001, "The request timed out."};
    EXPECT_EQ(download("https://files.test/a.pdf"), Calls{std::nullopt});
    EXPECT_EQ(newLines, std::vector<std::string>{"Failed to download file: The request timed out."});
    http->error.reset();
    download("https://files.test/a.pdf");
    EXPECT_EQ(newLines, std::vector<std::string>{"Failed to download file: Unknown error"});

    http->downloadBody = "body";
    platform.documents->directory.reset();
    EXPECT_EQ(download("https://files.test/a.pdf"), Calls{std::nullopt});
    EXPECT_EQ(newLines, std::vector<std::string>{"Documents directory not found"});
    EXPECT_TRUE(fs::is_empty(documents.path()));
}

// The documents directory itself is the destination: neither removed nor replaced.
TEST_F(FileDownload, AnEmptyNameAnswersNothingTwiceAndKeepsTheDirectory) {
    kelvane::testing::writeFile(documents.path() / "kept.txt", "kept");
    for (const char* url : {"https://files.test", "https://files.test/"}) {
        EXPECT_EQ(download(url), (Calls{std::nullopt, std::nullopt})) << url;
        ASSERT_EQ(newLines.size(), 2u) << url;
        EXPECT_TRUE(newLines[0].starts_with("Failed to remove existing file: ")) << newLines[0];
        EXPECT_TRUE(newLines[1].starts_with("Failed to save file: ")) << newLines[1];
    }
    EXPECT_EQ(readFile(documents.path() / "kept.txt"), "kept");
}

TEST(DownloadLinks, OnlyAPdfExtensionInAnyCaseCounts) {
    for (auto url : {"https://a.test/x.pdf", "https://a.test/x.PdF?download=1", "https://a.test/x.tar.PDF"}) {
        EXPECT_TRUE(isDownloadURL(*URL::make(url))) << url;
    }
    for (auto url : {"https://a.test/x.pdfx", "https://a.test/f?t=pdf", "https://a.test/pdf", "https://a.test/.pdf"}) {
        EXPECT_FALSE(isDownloadURL(*URL::make(url))) << url;
    }
}

}  // namespace
