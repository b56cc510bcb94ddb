#pragma once

// What an operator watches, in the Prometheus text format: the daemon's own counters (starts by outcome, their
// latency, throttled requests), kept here, and the gauges of the moment (sessions, users, transports), which the
// service counts from its registry when asked. No bus, no I/O: `render` makes the text, the service serves it.
// Counters is thread-safe (atomics): the start workers and the bus thread count into it at once.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vexa::Metrics {

enum class StartOutcome : uint8_t { Success, WrongPassword, Refused, Failed };
enum class Throttle : uint8_t { Password, Rate };

// Upper bounds (seconds) of the start-latency buckets; +Inf follows.
inline constexpr std::array<double, 9> latencyBuckets{0.1, 0.25, 0.5, 1, 2, 5, 10, 15, 30};

struct Snapshot {
    std::array<uint64_t, 4> starts{};                          // by StartOutcome
    std::array<uint64_t, latencyBuckets.size() + 1> latency{}; // per bucket, not cumulative; the last is +Inf
    double latencySum = 0;                                     // seconds
    std::array<uint64_t, 2> throttled{};                       // by Throttle
};

// The registry at one moment.
struct Gauges {
    uint32_t sessions = 0;     // in the registry, starting ones included
    uint32_t connected = 0;    // with a running transport
    uint32_t disconnected = 0; // started, with none
    uint32_t frozen = 0;
    uint32_t users = 0; // distinct users with a session
    uint32_t transports = 0;
};

class Counters {
public:
    // A session request's outcome; the latency of a successful start counts into the histogram.
    void startFinished(StartOutcome outcome, std::chrono::steady_clock::duration took);
    void throttled(Throttle why);
    Snapshot snapshot() const;

private:
    std::array<std::atomic<uint64_t>, 4> starts{};
    std::array<std::atomic<uint64_t>, latencyBuckets.size() + 1> latency{};
    std::atomic<uint64_t> latencyMicros{0};
    std::array<std::atomic<uint64_t>, 2> throttledBy{};
};

// The exposition text (format 0.0.4), every family with HELP and TYPE.
std::string render(const Snapshot& counters, const Gauges& gauges, double uptimeSeconds, std::string_view version);

} // namespace Vexa::Metrics
