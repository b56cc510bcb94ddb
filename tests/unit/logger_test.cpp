#include <syslog.h>

#include <gtest/gtest.h>

#include "common/logger.h"

using namespace Vexa;

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
        const int priorities[] = {LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
        const LogSink expected[] = {r.error, r.warning, r.notice, r.info, r.debug};
        for (size_t i = 0; i < std::size(priorities); ++i) {
            EXPECT_EQ(logSink(r.level, priorities[i]), expected[i]) << static_cast<int>(r.level) << '/' << i;
        }
    }
}

TEST(Syslog, LevelNamesAreExactAndUnknownNamesKeepThePreviousLevel) {
    const std::pair<const char*, DebugLevel> cases[] = {
        {"debug", DebugLevel::Debug}, {"trace", DebugLevel::Trace},  {"info", DebugLevel::Info},
        {"none", DebugLevel::None},   {"Debug", DebugLevel::Info},   {"INFO", DebugLevel::Info},
        {"", DebugLevel::Info},       {"console", DebugLevel::Info},
    };
    for (const auto& [name, expected] : cases) {
        Syslog::setDebugLevel(DebugLevel::Info);
        Syslog::setDebugLevel(std::string(name));
        EXPECT_EQ(Syslog::debugLevel(), expected) << '"' << name << '"';
    }
    Syslog::setDebugLevel(DebugLevel::None);
}

TEST(Syslog, ConsoleSinkWritesTimeTabMessageAndNewlineSilentWritesNothing) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    Syslog::debug("%s: value: %d", "fn", 42);
    const auto text = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.front(), '[');
    EXPECT_NE(text.find("]\tfn: value: 42\n"), std::string::npos) << text;

    Syslog::setDebugLevel(DebugLevel::Silent);
    ::testing::internal::CaptureStderr();
    Syslog::error("%s: nothing", "fn");
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().empty());
    Syslog::setDebugLevel(DebugLevel::None);
}
