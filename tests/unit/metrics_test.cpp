#include <gtest/gtest.h>

#include <sstream>

#include "metrics/counters.h"

namespace {

using namespace Vexa::Metrics;
using std::chrono::milliseconds;

// The value of one sample line ("name{labels} value") of the text.
std::string sampleOf(const std::string& text, const std::string& series) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(series + " ", 0) == 0) {
            return line.substr(series.size() + 1);
        }
    }
    return "missing";
}

TEST(Metrics, StartsCountByOutcomeAndOnlySuccessesTime) {
    Counters counters;
    counters.startFinished(StartOutcome::Success, milliseconds(50));
    counters.startFinished(StartOutcome::Success, milliseconds(300));
    counters.startFinished(StartOutcome::Success, milliseconds(40'000)); // past the last bound
    counters.startFinished(StartOutcome::WrongPassword, milliseconds(2000));
    counters.startFinished(StartOutcome::Refused, milliseconds(1));
    counters.throttled(Throttle::Password);
    const std::string text = render(counters.snapshot(), Gauges{.sessions = 3, .frozen = 1}, 12.5, "v \"1\"");

    const std::pair<const char*, const char*> expected[] = {
        {"vexa_session_starts_total{outcome=\"success\"}", "3"},
        {"vexa_session_starts_total{outcome=\"wrong_password\"}", "1"},
        {"vexa_session_starts_total{outcome=\"refused\"}", "1"},
        {"vexa_session_starts_total{outcome=\"failed\"}", "0"},
        // buckets are cumulative
        {"vexa_session_start_duration_seconds_bucket{le=\"0.1\"}", "1"},
        {"vexa_session_start_duration_seconds_bucket{le=\"0.25\"}", "1"},
        {"vexa_session_start_duration_seconds_bucket{le=\"0.5\"}", "2"},
        {"vexa_session_start_duration_seconds_bucket{le=\"30\"}", "2"},
        {"vexa_session_start_duration_seconds_bucket{le=\"+Inf\"}", "3"},
        {"vexa_session_start_duration_seconds_count", "3"},
        {"vexa_session_start_duration_seconds_sum", "40.350000000000001"},
        {"vexa_requests_throttled_total{reason=\"password\"}", "1"},
        {"vexa_requests_throttled_total{reason=\"rate\"}", "0"},
        {"vexa_sessions", "3"},
        {"vexa_sessions_frozen", "1"},
        {"vexa_uptime_seconds", "12.5"},
        {"vexa_build_info{version=\"v \\\"1\\\"\"}", "1"},
    };
    for (const auto& [series, value] : expected) {
        EXPECT_EQ(sampleOf(text, series), value) << series;
    }
}

} // namespace
