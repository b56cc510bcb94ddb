// The caller of the bus call benchmark: calls "vexaStatus" of a service for a number of seconds, one call at a
// time and then with many calls in flight, and prints the calls per second of each. The same code calls the
// daemon and the raw echo service, so that only the service differs.
//
//   vexa_bench_calls DESTINATION PATH INTERFACE SECONDS

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <systemd/sd-bus.h>

namespace {

using Clock = std::chrono::steady_clock;

struct Target {
    const char* destination;
    const char* path;
    const char* interface;
};

int newCall(sd_bus* bus, const Target& target, sd_bus_message** call) {
    return sd_bus_message_new_method_call(bus, call, target.destination, target.path, target.interface, "vexaStatus");
}

// One call at a time: the latency of a round trip bounds the rate.
double sequential(sd_bus* bus, const Target& target, double seconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    const auto begin = Clock::now();
    long calls = 0;
    while (Clock::now() < end) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const int r = sd_bus_call_method(bus, target.destination, target.path, target.interface, "vexaStatus", &error,
                                         &reply, "");
        if (r < 0) {
            std::fprintf(stderr, "vexa_bench_calls: %s: %s\n", target.destination, error.message);
            std::exit(1);
        }
        sd_bus_message_unref(reply);
        ++calls;
    }
    return static_cast<double>(calls) / std::chrono::duration<double>(Clock::now() - begin).count();
}

struct Pipeline {
    long inFlight = 0;
    long answered = 0;
    bool failed = false;
};

int answered(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    auto* pipe = static_cast<Pipeline*>(userdata);
    --pipe->inFlight;
    ++pipe->answered;
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        std::fprintf(stderr, "vexa_bench_calls: error reply: %s\n", sd_bus_message_get_error(reply)->message);
        pipe->failed = true;
    }
    return 0;
}

// `depth` calls in flight at all times: the service's own cost per call bounds the rate.
double pipelined(sd_bus* bus, const Target& target, double seconds, long depth) {
    Pipeline pipe;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    const auto begin = Clock::now();
    while (!pipe.failed) {
        const bool sending = Clock::now() < end;
        while (sending && pipe.inFlight < depth) {
            sd_bus_message* call = nullptr;
            if (newCall(bus, target, &call) < 0 ||
                sd_bus_call_async(bus, nullptr, call, answered, &pipe, 25'000'000) < 0) {
                std::fprintf(stderr, "vexa_bench_calls: could not send\n");
                std::exit(1);
            }
            sd_bus_message_unref(call);
            ++pipe.inFlight;
        }
        if (!sending && pipe.inFlight == 0) {
            break;
        }
        int r = 0;
        while ((r = sd_bus_process(bus, nullptr)) > 0) {
        }
        if (r < 0 || (sd_bus_wait(bus, 1'000'000) < 0)) {
            std::fprintf(stderr, "vexa_bench_calls: bus failed\n");
            std::exit(1);
        }
    }
    if (pipe.failed) {
        std::exit(1);
    }
    return static_cast<double>(pipe.answered) / std::chrono::duration<double>(Clock::now() - begin).count();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: vexa_bench_calls DESTINATION PATH INTERFACE SECONDS\n");
        return 2;
    }
    const Target target{argv[1], argv[2], argv[3]};
    const double seconds = std::strtod(argv[4], nullptr);
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        std::fprintf(stderr, "vexa_bench_calls: no system bus\n");
        return 1;
    }
    sequential(bus, target, 0.5); // warm-up: the service's first look at a new caller is not measured
    const double one = sequential(bus, target, seconds);
    const double many = pipelined(bus, target, seconds, 32);
    std::printf("%-20s sequential %8.0f calls/s   32 in flight %8.0f calls/s\n", target.destination, one, many);
    sd_bus_flush_close_unref(bus);
    return 0;
}
