#include <syslog.h>

#include <gtest/gtest.h>

#include "common/logger.h"

using namespace Vexa;

namespace {

// Restores the process-wide level after each test.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { saved = Syslog::debugLevel(); }
    void TearDown() override { Syslog::setDebugLevel(saved); }
    DebugLevel saved{};
};

} // namespace

TEST(LogSink, EveryLevelWritesExactlyTheTemplatesItAllows) {
    constexpr auto J = LogSink::Journal;
    constexpr auto N = LogSink::None;
    constexpr auto C = LogSink::Console;
    struct Row {
        DebugLevel level;
        LogSink error, warning, notice, info, debug;
    };
    const Row rows[] = {
        {DebugLevel::None, J, J, J, N, N},   {DebugLevel::Debug, J, J, J, J, J},   {DebugLevel::Info, J, J, J, J, N},
        {DebugLevel::Silent, N, N, N, N, N}, {DebugLevel::Console, C, C, C, C, C}, {DebugLevel::Trace, J, J, J, J, J},
    };
    for (const auto& r : rows) {
        const auto level = static_cast<int>(r.level);
        EXPECT_EQ(logSink(r.level, LOG_ERR), r.error) << level;
        EXPECT_EQ(logSink(r.level, LOG_WARNING), r.warning) << level;
        EXPECT_EQ(logSink(r.level, LOG_NOTICE), r.notice) << level;
        EXPECT_EQ(logSink(r.level, LOG_INFO), r.info) << level;
        EXPECT_EQ(logSink(r.level, LOG_DEBUG), r.debug) << level;
    }
}

TEST_F(LoggerTest, LevelNamesAreExactAndUnknownNamesKeepThePreviousLevel) {
    struct Case {
        const char* name;
        DebugLevel expected;
    };
    const Case cases[] = {
        {"debug", DebugLevel::Debug}, {"trace", DebugLevel::Trace},  {"info", DebugLevel::Info},
        {"none", DebugLevel::None},   {"Debug", DebugLevel::Info},   {"INFO", DebugLevel::Info},
        {"", DebugLevel::Info},       {"console", DebugLevel::Info}, {"silent", DebugLevel::Info},
    };
    for (const auto& c : cases) {
        Syslog::setDebugLevel(DebugLevel::Info);
        Syslog::setDebugLevel(std::string(c.name));
        EXPECT_EQ(Syslog::debugLevel(), c.expected) << '"' << c.name << '"';
    }
}

TEST_F(LoggerTest, OnlyTraceIsTraceMode) {
    for (int value = 0; value <= 5; ++value) {
        Syslog::setDebugLevel(static_cast<DebugLevel>(value));
        EXPECT_EQ(Syslog::isTraceMode(), value == static_cast<int>(DebugLevel::Trace));
        EXPECT_TRUE(Syslog::isDebugLevel(static_cast<DebugLevel>(value)));
    }
}

TEST_F(LoggerTest, ConsoleSinkWritesTimeTabMessageAndNewlineToStandardError) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    Syslog::debug("%s: value: %d", "fn", 42);
    const auto text = ::testing::internal::GetCapturedStderr();
    ASSERT_GE(text.size(), 3u);
    EXPECT_EQ(text.front(), '[');
    EXPECT_NE(text.find("]\tfn: value: 42\n"), std::string::npos) << text;
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(LoggerTest, SilentWritesNothingAnywhere) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    ::testing::internal::CaptureStderr();
    Syslog::error("%s: nothing", "fn");
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().empty());
}
