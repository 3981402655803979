// Logging through the C API: the rolling file pair, its settings, the
// caller's callback and injected lines.
#include <cstdarg>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log/log_file.h"
#include "test_env.h"

namespace {

int32_t WriteLine(uint32_t level, const char* source, uint32_t line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int32_t r = Korvalen_WriteRmLogInfo(level, source, line, fmt, &args);
    va_end(args);
    return r;
}

std::vector<std::string> SplitLines(const std::string& s)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start < s.size()) {
        size_t nl = s.find('\n', start);
        if (nl == std::string::npos) {
            nl = s.size();
        }
        out.push_back(s.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

struct LoggingTest : ::testing::Test {
    std::string cur, prev;
    void SetUp() override
    {
        RemoveTree(TestLogFolder());
        ASSERT_EQ(Korvalen_Init(), 1);
        cur = TestLogFolder() + "Player_SDK00.log";
        prev = TestLogFolder() + "Player_SDK01.log";
    }
    void TearDown() override
    {
        Korvalen_Cleanup();
        EXPECT_EQ(Korvalen_GetInitCount(), 0);
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
};

std::vector<std::string> g_cbLines;
void CallbackSink(uint32_t level, uint32_t module, uint32_t reserved, const char* source, uint32_t line,
                  const char* text)
{
    g_cbLines.push_back(std::to_string(level) + "|" + std::to_string(module) + "|" + std::to_string(reserved) + "|" +
                        source + "|" + std::to_string(line) + "|" + text);
}

} // namespace

TEST_F(LoggingTest, LineFormatReadsBackAndLongMessagesAreCut)
{
    ASSERT_EQ(WriteLine(KORVALEN_LOG_WARN, "/some/dir\\camera_vetrmodule.cpp", 77, "value %d and %s", 42, "text"), 1);
    auto lines = SplitLines(ReadFile(cur));
    ASSERT_FALSE(lines.empty());
    const std::string& last = lines.back();
    std::regex re(
        R"(^(\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{3})\[WARN\]\[(.*)-77\]\[(\d+)-(\d+)\] value 42 and text\r$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(last, m, re)) << last;
    // Only the part after the last separator, with a "vetr" name losing its
    // first four characters.
    EXPECT_EQ(m[8].str(), "ra_vetrmodule.cpp");
    EXPECT_EQ(std::stoi(m[9].str()), getpid());
    // The init line carries the version text.
    EXPECT_NE(ReadFile(cur).find("[INFO]"), std::string::npos);
    EXPECT_NE(ReadFile(cur).find("Call Korvalen_Init Success, Version: 2.5.0046"), std::string::npos);

    // Long messages: the text handed to the writer ("[pid-tid] " and the
    // message) stops at 1023 characters plus its terminator.
    WriteLine(KORVALEN_LOG_ERROR, "big.cpp", 1, "%s", std::string(5000, 'A').c_str());
    const std::string big = SplitLines(ReadFile(cur)).back();
    const size_t start = big.find("] AAAA");
    ASSERT_NE(start, std::string::npos);
    ASSERT_EQ(big.back(), '\r');
    EXPECT_EQ(big.size() - 1 - big.rfind('[', start), 1023u);
}

TEST_F(LoggingTest, ThresholdLevelZeroAndBadSettings)
{
    ASSERT_EQ(Korvalen_SetLog(3, nullptr, 4096), 1);
    LogFileSettings s;
    ASSERT_TRUE(LOGFILE_GetSettings(&s));
    EXPECT_EQ(s.threshold, 3u);
    EXPECT_EQ(s.maxSize, 0x180000u) << "4 MiB is capped at 1.5 MiB";
    WriteLine(KORVALEN_LOG_INFO, "t.cpp", 1, "dropped-info");
    WriteLine(KORVALEN_LOG_ERROR, "t.cpp", 2, "kept-error");
    std::string text = ReadFile(cur);
    EXPECT_EQ(text.find("dropped-info"), std::string::npos);
    EXPECT_NE(text.find("kept-error"), std::string::npos);

    EXPECT_EQ(Korvalen_SetLog(9, nullptr, 100), 1) << "a level above 5 is accepted";
    ASSERT_TRUE(LOGFILE_GetSettings(&s));
    EXPECT_EQ(s.threshold, 3u) << "and leaves the threshold alone";
    EXPECT_EQ(s.maxSize, 100u * 1024);

    EXPECT_EQ(Korvalen_SetLog(2, nullptr, 0), 0) << "size 0";
    EXPECT_EQ(Korvalen_SetLog(0, nullptr, 1024), 0) << "level 0 turns file logging off and reports failure";
    WriteLine(KORVALEN_LOG_FATAL, "t.cpp", 3, "after-off");
    EXPECT_EQ(ReadFile(cur).find("after-off"), std::string::npos);
}

TEST_F(LoggingTest, OwnFolderAndRotationKeepOlderLines)
{
    std::string dir = TestHome() + "/logs/nested";
    ASSERT_EQ(Korvalen_SetLog(1, dir.c_str(), 4), 1); // 4 KB files
    std::string c = dir + "/Player_SDK00.log";
    std::string p = dir + "/Player_SDK01.log";
    for (int i = 0; i < 60; ++i) {
        WriteLine(KORVALEN_LOG_INFO, "rot.cpp", i, "line-%03d %s", i, std::string(40, 'x').c_str());
    }
    std::string newer = ReadFile(c);
    std::string older = ReadFile(p);
    ASSERT_FALSE(older.empty()) << "rotation moved the older lines";
    EXPECT_LE(newer.size() + 1024, 4096u + 1024);
    EXPECT_LE(older.size(), 4096u);
    EXPECT_NE(newer.find("line-059"), std::string::npos);
    // Every line of the newer file is newer than every line of the older one.
    size_t lastOld = older.rfind("line-");
    size_t firstNew = newer.find("line-");
    ASSERT_NE(lastOld, std::string::npos);
    ASSERT_NE(firstNew, std::string::npos);
    EXPECT_LT(std::stoi(older.substr(lastOld + 5, 3)), std::stoi(newer.substr(firstNew + 5, 3)));
    EXPECT_FALSE(FileExists(TestLogFolder() + "Player_SDK01.log"));
}

TEST(LoggingCallback, CallbackBeforeInitMeansNoFiles)
{
    RemoveTree(TestLogFolder());
    g_cbLines.clear();
    ASSERT_EQ(Korvalen_SetWriteLogCB(&CallbackSink), 1);
    ASSERT_EQ(Korvalen_Init(), 1);
    EXPECT_EQ(Korvalen_SetLog(2, nullptr, 1024), 0) << "no file logger to set";
    va_list* none = nullptr;
    EXPECT_EQ(Korvalen_WriteRmLogInfo(KORVALEN_LOG_ERROR, "cb.cpp", 9, "plain 100%", none), 1);
    Korvalen_Cleanup();
    ASSERT_EQ(Korvalen_SetWriteLogCB(nullptr), 1);
    EXPECT_FALSE(FileExists(TestLogFolder() + "Player_SDK00.log"));
    bool sawInit = false, sawPlain = false;
    for (const auto& l : g_cbLines) {
        sawInit |= l.find("|358|0|") != std::string::npos && l.find("Call Korvalen_Init") != std::string::npos;
        sawPlain |= l.rfind("4|358|0|cb.cpp|9|[", 0) == 0 && l.find("] plain 100%") != std::string::npos;
    }
    EXPECT_TRUE(sawInit);
    EXPECT_TRUE(sawPlain);
    // With the callback removed the next init opens the files again.
    ASSERT_EQ(Korvalen_Init(), 1);
    Korvalen_Cleanup();
    EXPECT_TRUE(FileExists(TestLogFolder() + "Player_SDK00.log"));
}
