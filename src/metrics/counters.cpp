#include "metrics/counters.h"

#include <cstdio>

namespace Vexa::Metrics {

namespace {

constexpr const char* outcomeNames[] = {"success", "wrong_password", "refused", "failed"};
constexpr const char* throttleNames[] = {"password", "rate"};

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void sample(std::string& out, const std::string& name, double value) {
    char text[64];
    std::snprintf(text, sizeof text, " %.17g\n", value);
    out += name;
    out += text;
}

// A label value as the format wants it: backslash, double quote and newline escaped.
std::string labelValue(std::string_view value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string bound(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

} // namespace

void Counters::startFinished(StartOutcome outcome, std::chrono::steady_clock::duration took) {
    starts[static_cast<size_t>(outcome)].fetch_add(1, std::memory_order_relaxed);
    if (outcome != StartOutcome::Success) {
        return;
    }
    const double seconds = std::chrono::duration<double>(took).count();
    size_t bucket = 0;
    while (bucket < latencyBuckets.size() && seconds > latencyBuckets[bucket]) {
        ++bucket;
    }
    latency[bucket].fetch_add(1, std::memory_order_relaxed);
    latencyMicros.fetch_add(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count()),
                            std::memory_order_relaxed);
}

void Counters::throttled(Throttle why) {
    throttledBy[static_cast<size_t>(why)].fetch_add(1, std::memory_order_relaxed);
}

Snapshot Counters::snapshot() const {
    Snapshot snap;
    for (size_t i = 0; i < starts.size(); ++i) {
        snap.starts[i] = starts[i].load(std::memory_order_relaxed);
    }
    for (size_t i = 0; i < latency.size(); ++i) {
        snap.latency[i] = latency[i].load(std::memory_order_relaxed);
    }
    snap.latencySum = static_cast<double>(latencyMicros.load(std::memory_order_relaxed)) / 1e6;
    for (size_t i = 0; i < throttledBy.size(); ++i) {
        snap.throttled[i] = throttledBy[i].load(std::memory_order_relaxed);
    }
    return snap;
}

std::string render(const Snapshot& counters, const Gauges& gauges, double uptimeSeconds, std::string_view version) {
    std::string out;
    const struct {
        const char* name;
        const char* help;
        uint32_t value;
    } now[] = {
        {"vexa_sessions", "Sessions in the registry, starting ones included.", gauges.sessions},
        {"vexa_sessions_connected", "Sessions with a running transport.", gauges.connected},
        {"vexa_sessions_disconnected", "Started sessions without a transport.", gauges.disconnected},
        {"vexa_sessions_frozen", "Sessions whose cgroup is frozen.", gauges.frozen},
        {"vexa_users", "Users with at least one session.", gauges.users},
        {"vexa_transports", "Running transports attached to sessions.", gauges.transports},
    };
    for (const auto& gauge : now) {
        family(out, gauge.name, "gauge", gauge.help);
        sample(out, gauge.name, gauge.value);
    }

    family(out, "vexa_session_starts_total", "counter", "Session requests by outcome.");
    for (size_t i = 0; i < counters.starts.size(); ++i) {
        sample(out, std::string("vexa_session_starts_total{outcome=\"") + outcomeNames[i] + "\"}",
               static_cast<double>(counters.starts[i]));
    }

    family(out, "vexa_session_start_duration_seconds", "histogram",
           "Time from a session request to its started session.");
    uint64_t cumulative = 0;
    for (size_t i = 0; i < counters.latency.size(); ++i) {
        cumulative += counters.latency[i];
        const std::string le = i < latencyBuckets.size() ? bound(latencyBuckets[i]) : "+Inf";
        sample(out, "vexa_session_start_duration_seconds_bucket{le=\"" + le + "\"}", static_cast<double>(cumulative));
    }
    sample(out, "vexa_session_start_duration_seconds_sum", counters.latencySum);
    sample(out, "vexa_session_start_duration_seconds_count", static_cast<double>(cumulative));

    family(out, "vexa_requests_throttled_total", "counter",
           "Requests delayed after failed logins (password) or refused by the per-caller limits (rate).");
    for (size_t i = 0; i < counters.throttled.size(); ++i) {
        sample(out, std::string("vexa_requests_throttled_total{reason=\"") + throttleNames[i] + "\"}",
               static_cast<double>(counters.throttled[i]));
    }

    family(out, "vexa_uptime_seconds", "gauge", "Seconds since the daemon started.");
    sample(out, "vexa_uptime_seconds", uptimeSeconds);
    family(out, "vexa_build_info", "gauge", "The daemon's version, as a label; always 1.");
    sample(out, "vexa_build_info{version=\"" + labelValue(version) + "\"}", 1);
    return out;
}

} // namespace Vexa::Metrics
