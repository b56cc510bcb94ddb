#include <memory>

#include <gtest/gtest.h>

#include "auth/auth_throttle.h"

using namespace Vexa;
using namespace std::chrono_literals;

namespace {

using Clock = AuthThrottle::Clock;
const Clock::time_point t0{1h};

long milliseconds(Clock::duration duration) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
}

// The delay of a new attempt at `at`, in milliseconds.
long delayMs(AuthThrottle& throttle, const std::string& user, const std::string& caller, Clock::time_point at) {
    return milliseconds(throttle.admit(user, caller, at).notBefore - at);
}

std::unique_ptr<AuthThrottle> throttle(ThrottleSettings settings, int aliceFailures) {
    auto made = std::make_unique<AuthThrottle>();
    made->configure(settings);
    for (int i = 0; i < aliceFailures; ++i) {
        made->failed("alice", ":1.5", t0);
    }
    return made;
}

} // namespace

TEST(AuthThrottle, AGuesserWaitsFromTheThresholdOnDoublingUpToTheMaximum) {
    const auto guarded = throttle({3, 2s, 10s, 300s}, 0);
    // One guess after the other, each failing at its slot: the wait before each guess.
    const long waits[] = {0, 0, 0, 2000, 4000, 8000, 10000, 10000};
    auto now = t0;
    for (size_t guess = 0; guess < std::size(waits); ++guess) {
        const auto slot = guarded->admit("alice", ":1.5", now);
        EXPECT_EQ(milliseconds(slot.notBefore - now), waits[guess]) << "guess " << guess;
        now = slot.notBefore;
        const auto failure = guarded->failed("alice", ":1.5", now);
        EXPECT_EQ(failure.engaged, guess == 2) << "guess " << guess;
        EXPECT_EQ(failure.userFailures, guess + 1);
    }
}

TEST(AuthThrottle, UserAndCallerAreKeptApartAndASuccessReleasesBoth) {
    const ThrottleSettings settings{2, 1s, 30s, 300s};
    struct Case {
        const char* user;
        const char* caller;
        long delay;
    };
    // alice failed twice from :1.5
    const Case cases[] = {{"alice", ":1.6", 1000}, {"bob", ":1.5", 1000}, {"bob", ":1.6", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(delayMs(*throttle(settings, 2), c.user, c.caller, t0), c.delay) << c.user << " " << c.caller;
    }
    const auto released = throttle(settings, 2);
    EXPECT_TRUE(released->succeeded("alice", ":1.5"));
    EXPECT_EQ(delayMs(*released, "alice", ":1.5", t0), 0);
    EXPECT_FALSE(released->succeeded("alice", ":1.5"));
}

TEST(AuthThrottle, AttemptsAtOnceAreSpacedAndQuietTimeForgets) {
    const auto guarded = throttle({1, 2s, 30s, 60s}, 1);
    // Three attempts arriving together get consecutive slots, not one shared slot.
    EXPECT_EQ(delayMs(*guarded, "alice", ":1.7", t0), 2000);
    EXPECT_EQ(delayMs(*guarded, "alice", ":1.8", t0), 4000);
    EXPECT_EQ(delayMs(*guarded, "alice", ":1.9", t0), 6000);
    // A minute without a failure: forgotten.
    EXPECT_EQ(delayMs(*guarded, "alice", ":1.7", t0 + 61s), 0);
    // Switched off: never a delay.
    const auto off = throttle({0, 2s, 30s, 60s}, 5);
    EXPECT_FALSE(off->failed("alice", ":1.5", t0).engaged);
    EXPECT_EQ(delayMs(*off, "alice", ":1.5", t0), 0);
}
