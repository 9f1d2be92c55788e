// Log files that another process has open: this one opens them, a child logs.

#include "logger/logger.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>

#include "child.h"
#include "local_time.h"
#include "log_capture.h"

namespace NV::test {

namespace {

std::chrono::system_clock::time_point noonOfTheNinth()
{
    return localTime(2026, 1, 9);
}

}  // namespace

// Writes a record of each channel on the 9th of January 2026 into the folder that is named; tells
// how many were counted.
NV_TEST_CHILD(writesTwoRecords)
{
    LoggerSettings settings;
    settings.store = arguments.at(0);
    settings.now = &noonOfTheNinth;
    loggerSettings() = settings;
    loggerRecordCount() = 1;
    TRC("first");
    SEV("second");
    std::cout << loggerRecordCount() - 1;
    return 0;
}

namespace {

constexpr char fileOfTheNinth[] = "nvksprovider-20260109.log";

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<HANDLE, HandleCloser>;

OwnedHandle hold(const std::filesystem::path& file, DWORD access, DWORD share)
{
    HANDLE handle = CreateFileW(file.wstring().c_str(), access, share, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, handle);
    return OwnedHandle(handle);
}

struct Case {
    const char* name;
    DWORD access;
    DWORD share;
    bool written;
};

std::ostream& operator<<(std::ostream& out, const Case& row)
{
    return out << row.name;
}

constexpr DWORD readAndWrite = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD everything = readAndWrite | FILE_SHARE_DELETE;

const Case cases[] = {
    {"ReaderThatSharesAll", GENERIC_READ, everything, true},
    {"WriterThatSharesAll", GENERIC_READ | GENERIC_WRITE, everything, true},
    {"WriterThatSharesBoth", GENERIC_READ | GENERIC_WRITE, readAndWrite, true},
    {"AppenderThatSharesWriting", FILE_APPEND_DATA, FILE_SHARE_WRITE, true},
    {"ReaderThatSharesReading", GENERIC_READ, FILE_SHARE_READ, false},
    {"ReaderThatSharesNothing", GENERIC_READ, 0, false},
    {"WriterThatSharesNothing", GENERIC_WRITE, 0, false},
    // The logger does not share the deletion of its file.
    {"DeleterThatSharesAll", DELETE, everything, false},
};

class LogHeld : public testing::TestWithParam<Case> {
protected:
    LogHeld() { writeFile(file_, "what was there\r\n"); }

    std::string log()
    {
        const ChildResult result =
            runChild("writesTwoRecords", {.arguments = {narrowPath(folder_.path())}});
        EXPECT_EQ(0u, result.exitCode);
        return result.output;
    }

    size_t lineFeeds() const
    {
        const std::string text = readFile(file_);
        EXPECT_TRUE(text.starts_with("what was there\r\n"));
        return static_cast<size_t>(std::ranges::count(text, '\n'));
    }

    TemporaryFolder folder_;
    std::filesystem::path file_ = folder_.path() / fileOfTheNinth;
};

INSTANTIATE_TEST_SUITE_P(Holders, LogHeld, testing::ValuesIn(cases),
                         [](const auto& row) { return row.param.name; });

// A record is dropped without a word, but counted, as long as the file cannot be opened.
TEST_P(LogHeld, ByAnotherProcess)
{
    OwnedHandle holder = hold(file_, GetParam().access, GetParam().share);
    EXPECT_EQ("2", log());
    holder.reset();
    EXPECT_EQ(GetParam().written ? 3u : 1u, lineFeeds());
    EXPECT_EQ("2", log());
    EXPECT_EQ(GetParam().written ? 5u : 3u, lineFeeds());
}

TEST(LogOutdated, AFileThatIsHeldStaysAndTheRecordIsWritten)
{
    LogCapture capture;
    capture.setTime(2026, 1, 9);
    const std::filesystem::path outdated = capture.folder() / "nvksprovider-20260101.log";
    writeFile(outdated, "old");
    OwnedHandle holder = hold(outdated, GENERIC_READ, FILE_SHARE_READ);
    TRC("first");
    EXPECT_TRUE(std::filesystem::exists(outdated));
    holder.reset();
    TRC("second");
    EXPECT_FALSE(std::filesystem::exists(outdated));
    EXPECT_EQ("TRC first\nTRC second\n", render(capture.lines()));
}

}  // namespace

}  // namespace NV::test
