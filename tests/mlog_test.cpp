// SPDX-License-Identifier: GPL-3.0-or-later
#include "mlog.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;

LocalTime g_now{2026, 11, 22, 9, 5, 7};
unsigned g_threadId = 42;

LocalTime FixedClock()
{
    return g_now;
}

unsigned FixedThreadId()
{
    return g_threadId;
}

std::string ReadFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Splits on CRLF; a trailing piece without its line end is kept so that tests see torn lines.
std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find("\r\n", start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start) + "<no line end>");
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

class LogFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "larimo-mlog-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        m_path = m_folder / "larimocl.log";
        g_now = LocalTime{2026, 11, 22, 9, 5, 7};
        g_threadId = 42;
        LogSetSources(&FixedClock, &FixedThreadId);
    }

    void TearDown() override
    {
        LogOpen("", false, false, false, false, false);
        LogSetSources(nullptr, nullptr);
        std::error_code ignored;
        fs::permissions(m_folder, fs::perms::owner_all, ignored);
        fs::remove_all(m_folder, ignored);
    }

    void Open(bool timestamps, bool threadIds, bool semicolon = false, bool compact = false)
    {
        ASSERT_TRUE(LogOpen(m_path.string(), timestamps, threadIds, false, semicolon, compact));
    }

    std::vector<std::string> Lines() const { return SplitLines(ReadFile(m_path)); }

    fs::path m_folder;
    fs::path m_path;
};

TEST_F(LogFile, EnterAndLeaveRecordsWithTheProgramsSettings)
{
    Open(true, false);
    EXPECT_TRUE(LogEnter("IPC::Open"));
    EXPECT_TRUE(LogLeaveResult("IPC::Open", true));
    EXPECT_TRUE(LogLeaveResult("IPC::Open", false));
    EXPECT_TRUE(LogEnter("IPC::SendMessageW", "%d, %s", 201, "slot"));
    EXPECT_TRUE(LogLeave("IPC::Close"));
    EXPECT_TRUE(LogScopeInfo("CMoApp::InitInstance", "%s", "ready"));
    EXPECT_TRUE(LogScopeInfo("CMoApp::InitInstance"));

    const std::string text = ReadFile(m_path);
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
    EXPECT_EQ(text.find('\xEF'), std::string::npos) << "no byte-order mark";
    const std::vector<std::string> expected = {
        "9:5:7           --> IPC::Open()",
        "9:5:7           <-- IPC::Open() = true",
        "9:5:7           <-- IPC::Open() = false",
        "9:5:7           --> IPC::SendMessageW(201, slot)",
        "9:5:7           <-- IPC::Close()",
        "9:5:7            == CMoApp::InitInstance(): ready",
        "9:5:7            == CMoApp::InitInstance()",
    };
    EXPECT_EQ(Lines(), expected);
}

struct FieldCase {
    LocalTime time;
    unsigned threadId;
    const char* prefix;
};

class LogFields : public LogFile, public ::testing::WithParamInterface<FieldCase> {};

TEST_P(LogFields, TimeAndThreadFieldsArePaddedToTheirColumns)
{
    g_now = GetParam().time;
    g_threadId = GetParam().threadId;
    Open(true, true);
    LogText("x");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0], std::string(GetParam().prefix) + std::string(11, ' ') + "x");
}

INSTANTIATE_TEST_SUITE_P(
    Widths, LogFields,
    ::testing::Values(FieldCase{{2026, 1, 1, 9, 5, 7}, 42, "9:5:7    [42]    "},
                      FieldCase{{2026, 1, 1, 23, 59, 59}, 7, "23:59:59 [7]     "},
                      FieldCase{{2026, 1, 1, 1, 2, 3}, 12345, "1:2:3    [12345] "},
                      FieldCase{{2026, 1, 1, 0, 0, 0}, 123456, "0:0:0    [123456]"},
                      FieldCase{{2026, 1, 1, 10, 10, 10}, 4000000000U, "10:10:10 [4000000000]"},
                      FieldCase{{2026, 1, 1, 123456, 0, 0}, 1, "123456:0:0[1]     "}));

using MarkerCase = std::tuple<bool, bool, std::vector<std::string>>;

class LogMarkers : public LogFile, public ::testing::WithParamInterface<MarkerCase> {};

TEST_P(LogMarkers, EveryLevelHasItsMarkerAndUnknownLevelsArePlain)
{
    const auto& [semicolon, compact, markers] = GetParam();
    Open(false, false, semicolon, compact);
    for (int level = 0; level <= 6; ++level)
        LogRecord(level, "m");
    LogRecord(9, "m");
    LogRecord(-3, "m");

    std::vector<std::string> expected;
    for (const std::string& marker : markers)
        expected.push_back(marker + "m");
    expected.push_back(markers[1] + "m");
    expected.push_back(markers[1] + "m");
    EXPECT_EQ(Lines(), expected);
    if (!semicolon && !compact) {
        for (const std::string& marker : markers)
            EXPECT_EQ(marker.size(), 11U) << '"' << marker << '"';
    }
}

const std::vector<std::string> kPadded = {"        == ", "           ", "  Warning: ", "    Error: ",
                                          "Exception: ", "       --> ", "       <-- "};
const std::vector<std::string> kCompact = {"==", "", "Warning: ", "Error: ", "Exception: ", "--> ", "<-- "};
const std::vector<std::string> kSemicolon = {"==;", ";", "Warning;", "Error;", "Exception;", "-->;", "<--;"};

INSTANTIATE_TEST_SUITE_P(Modes, LogMarkers,
                         ::testing::Values(MarkerCase{false, false, kPadded}, MarkerCase{false, true, kCompact},
                                           MarkerCase{true, false, kSemicolon},
                                           MarkerCase{true, true, kSemicolon}));

TEST_F(LogFile, SemicolonModeEndsFieldsWithSemicolonsAndNoBlanks)
{
    g_now = LocalTime{2026, 1, 1, 23, 59, 59};
    Open(true, true, true);
    LogWarning("disk %s", "full");
    LogInfo("ok");
    const std::vector<std::string> expected = {"23:59:59;[42];Warning;disk full", "23:59:59;[42];==;ok"};
    EXPECT_EQ(Lines(), expected);
}

TEST_F(LogFile, StartBannerIsABoxOfThree79CharacterLines)
{
    Open(true, true);
    EXPECT_TRUE(LogStartBanner());
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 3U);
    for (const std::string& line : lines)
        EXPECT_EQ(line.size(), 79U) << line;
    EXPECT_EQ(lines[0], "+" + std::string(77, '-') + "+");
    EXPECT_EQ(lines[2], lines[0]);
    const std::string text = "| Application started on 22.11.2026 9:5:7";
    EXPECT_EQ(lines[1], text + std::string(78 - text.size(), ' ') + "|");
}

TEST_F(LogFile, StartBannerInSemicolonModeIsTheTextBetweenEmptyLines)
{
    Open(true, true, true);
    EXPECT_TRUE(LogStartBanner());
    const std::vector<std::string> expected = {"", "Application started on 22.11.2026 9:5:7", ""};
    EXPECT_EQ(Lines(), expected);
}

TEST(LogBanner, LongTextsAreFramedUnchangedOrNotAtAll)
{
    // "| " plus 76 characters is 78: one closing bar makes 79.
    std::vector<std::string> lines = LogBannerLines(std::string(76, 'a'), false);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "| " + std::string(76, 'a') + "|");

    lines = LogBannerLines(std::string(77, 'a'), false);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "| " + std::string(77, 'a'));

    lines = LogBannerLines(std::string(2028, 'a'), false);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1].size(), 2030U);

    EXPECT_TRUE(LogBannerLines(std::string(2029, 'a'), false).empty());

    // Width is counted in characters, not bytes: 30 two-byte letters still close at column 79.
    std::string accented;
    for (int i = 0; i < 30; ++i)
        accented += "\xC3\xA9";
    lines = LogBannerLines(accented, false);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "| " + accented + std::string(46, ' ') + "|");

    lines = LogBannerLines(std::string(3000, 'b'), true);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].size(), 1023U);
    EXPECT_EQ(lines[0].substr(0, 3), "\r\nb");
}

TEST_F(LogFile, LongMessagesAreCutAt1023Characters)
{
    Open(false, false, false, true);
    const std::string huge(5000, 'x');
    EXPECT_TRUE(LogText("%s", huge.c_str()));
    EXPECT_TRUE(LogEnter("Scope::Name", "%s", huge.c_str()));
    EXPECT_TRUE(LogLeaveResult("Scope::Name", huge));
    std::string emoji;
    for (int i = 0; i < 600; ++i)
        emoji += "\xF0\x9F\x98\x80"; // two UTF-16 units each
    EXPECT_TRUE(LogText("a%s", emoji.c_str()));

    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], std::string(1023, 'x'));
    EXPECT_EQ(lines[1], "--> Scope::Name(" + std::string(1023 - 12, 'x'));
    EXPECT_EQ(lines[2], "<-- Scope::Name() = " + std::string(1023 - 16, 'x'));
    // 1 + 511 * 2 = 1023 units; the 512th emoji would need two more, and is not split.
    std::string expectedEmoji = "a";
    for (int i = 0; i < 511; ++i)
        expectedEmoji += "\xF0\x9F\x98\x80";
    EXPECT_EQ(lines[3], expectedEmoji);
}

enum class Sample { One = 3 };
struct Opaque {
    int value;
};

TEST(LogValue, ResultsAreFormattedByType)
{
    EXPECT_EQ(LogValueText(true), "true");
    EXPECT_EQ(LogValueText(-5LL), "-5");
    EXPECT_EQ(LogValueText(4294967295ULL), "4294967295");
    EXPECT_EQ(LogValueText(2.5L), "2.500000e+00");
    EXPECT_EQ(LogValueText("text"), "text");
    EXPECT_EQ(LogValueText(static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(LogValueText(reinterpret_cast<const void*>(0xABCDEF)), "0x0000000000ABCDEF");
    EXPECT_EQ(LogValueText(std::string(3000, 'v').c_str()).size(), 2047U);
}

TEST_F(LogFile, LeaveResultPicksTheFormatFromTheValueType)
{
    Open(false, false, false, true);
    const char* name = "voice";
    char buffer[] = "mutable";
    LogLeaveResult("T::Int", -12);
    LogLeaveResult("T::Short", static_cast<short>(-2));
    LogLeaveResult("T::Unsigned", 4000000000U);
    LogLeaveResult("T::Byte", static_cast<unsigned char>(200));
    LogLeaveResult("T::Float", 0.5F);
    LogLeaveResult("T::Text", name);
    LogLeaveResult("T::Buffer", buffer);
    LogLeaveResult("T::String", std::string("owned"));
    LogLeaveResult("T::Pointer", reinterpret_cast<const int*>(0x10));
    LogLeaveResult("T::Enum", Sample::One);
    LogLeaveResult("T::Struct", Opaque{1});
    const std::vector<std::string> expected = {
        "<-- T::Int() = -12",         "<-- T::Short() = -2",
        "<-- T::Unsigned() = 4000000000", "<-- T::Byte() = 200",
        "<-- T::Float() = 5.000000e-01",  "<-- T::Text() = voice",
        "<-- T::Buffer() = mutable",  "<-- T::String() = owned",
        "<-- T::Pointer() = 0x0000000000000010", "<-- T::Enum() = 3",
        "<-- T::Struct() = undefined type!",
    };
    EXPECT_EQ(Lines(), expected);
}

TEST_F(LogFile, UnopenableFileCostsOnlyTheRecordsAndIsRetried)
{
    const fs::path folder = m_folder / "later";
    m_path = folder / "larimocl.log";
    Open(false, false, false, true);
    EXPECT_TRUE(LogError("lost %d", 1));
    EXPECT_FALSE(fs::exists(m_path));

    fs::create_directory(folder);
    EXPECT_TRUE(LogError("kept %d", 2));
    EXPECT_EQ(Lines(), std::vector<std::string>{"Error: kept 2"});

    if (geteuid() != 0) {
        // A folder that refuses new files: the same, once it is writable again.
        const fs::path locked = m_folder / "locked";
        fs::create_directory(locked);
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        m_path = locked / "larimocl.log";
        Open(false, false, false, true);
        EXPECT_TRUE(LogError("lost"));
        EXPECT_FALSE(fs::exists(m_path));
        fs::permissions(locked, fs::perms::owner_all);
        EXPECT_TRUE(LogError("kept"));
        EXPECT_EQ(Lines(), std::vector<std::string>{"Error: kept"});
    }
}

TEST_F(LogFile, ReopeningAppendsAndNeverTruncates)
{
    {
        std::ofstream seed(m_path, std::ios::binary);
        seed << "earlier run\r\n";
    }
    Open(false, false, false, true);
    LogInfo("first");
    Open(false, false, false, true);
    LogInfo("second");
    const std::vector<std::string> expected = {"earlier run", "==first", "==second"};
    EXPECT_EQ(Lines(), expected);
}

TEST_F(LogFile, WithoutAFileNameNothingIsWrittenButTheConsoleEchoes)
{
    ASSERT_TRUE(LogOpen("", true, false, true, false, false));
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(LogWarning("only on screen"));
    EXPECT_TRUE(LogStartBanner());
    const std::string echoed = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(echoed.find("9:5:7      Warning: only on screen\n"), std::string::npos) << echoed;
    EXPECT_NE(echoed.find("| Application started on 22.11.2026 9:5:7"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(m_folder));
}

// Every line must be one of the writers' own lines, whole, and all of them must be there.
void ExpectWholeLines(const std::vector<std::string>& lines, int writers, int perWriter, size_t padding)
{
    std::vector<int> seen(static_cast<size_t>(writers), 0);
    for (const std::string& line : lines) {
        int writer = -1;
        int index = -1;
        char tail[16] = {};
        ASSERT_EQ(std::sscanf(line.c_str(), "w%d n%d %15s", &writer, &index, tail), 3) << line;
        ASSERT_GE(writer, 0);
        ASSERT_LT(writer, writers);
        const std::string expected =
            "w" + std::to_string(writer) + " n" + std::to_string(index) + " " + std::string(padding, 'z');
        ASSERT_EQ(line, expected);
        EXPECT_EQ(index, seen[static_cast<size_t>(writer)]) << "lines of one writer stay in order";
        ++seen[static_cast<size_t>(writer)];
    }
    for (int count : seen)
        EXPECT_EQ(count, perWriter);
}

TEST_F(LogFile, ConcurrentThreadsWriteWholeLines)
{
    Open(false, false, false, true);
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    const std::string padding(300, 'z');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &padding] {
            for (int i = 0; i < kLines; ++i)
                LogText("w%d n%d %s", t, i, padding.c_str());
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ExpectWholeLines(Lines(), kThreads, kLines, padding.size());
}

TEST_F(LogFile, ConcurrentProcessesWriteWholeLines)
{
    constexpr int kProcesses = 2;
    constexpr int kLines = 2000;
    const std::string padding(700, 'z');
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Each process opens the file itself, as two programs logging to one file do.
            LogOpen(m_path.string(), false, false, false, false, true);
            for (int i = 0; i < kLines; ++i)
                LogText("w%d n%d %s", p, i, padding.c_str());
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ExpectWholeLines(Lines(), kProcesses, kLines, padding.size());
}

} // namespace
} // namespace larimo
