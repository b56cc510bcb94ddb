// vexa_metrics: answers one HTTP request on the connection systemd accepted for it (vexa-metrics.socket,
// Accept=yes, descriptor 3) with the daemon's metrics, fetched over the system bus like any monitoring client.
// Runs as the unprivileged vexa-metrics account (group vexa-monitor); holds nothing between requests.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include "common/utils.h"

namespace {

constexpr size_t requestLimit = 8192;
constexpr int requestTimeoutMs = 5000;

// The request head, up to its blank line; empty when the client sent none in time.
std::string readHead(int fd) {
    std::string head;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(requestTimeoutMs);
    while (head.find("\r\n\r\n") == std::string::npos && head.find("\n\n") == std::string::npos &&
           head.size() < requestLimit) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            return {};
        }
        char buffer[1024];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        head.append(buffer, static_cast<size_t>(n));
    }
    return head;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void respond(int fd, const char* status, const char* type, const std::string& body) {
    std::string head = std::string("HTTP/1.0 ") + status + "\r\nContent-Type: " + type +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    if (writeAll(fd, head)) {
        writeAll(fd, body);
    }
}

// The daemon's text; empty (and `problem` says why) when it could not be had.
std::string fetchMetrics(std::string& problem) {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_system(&bus); r < 0) {
        problem = std::string("system bus: ") + Vexa::Utils::errnoText(-r);
        return {};
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    std::string text;
    const int r = sd_bus_call_method(bus, "ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa.Metrics", "metricsText",
                                     &error, &reply, "");
    const char* value = nullptr;
    if (r < 0) {
        problem = error.message ? error.message : Vexa::Utils::errnoText(-r);
    } else if (sd_bus_message_read(reply, "s", &value) < 0 || !value || !*value) {
        problem = "the daemon answered no metrics";
    } else {
        text = value;
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return text;
}

} // namespace

int main() {
    const int listened = sd_listen_fds(1);
    const int fd = listened == 1 ? SD_LISTEN_FDS_START : -1;
    if (fd < 0) {
        std::fprintf(stderr, "vexa_metrics: start me through vexa-metrics.socket (one accepted connection)\n");
        return 2;
    }
    const std::string head = readHead(fd);
    const std::string line = head.substr(0, head.find_first_of("\r\n"));
    if (line.rfind("GET ", 0) != 0) {
        respond(fd, "405 Method Not Allowed", "text/plain", "GET /metrics\n");
        return 0;
    }
    const auto pathEnd = line.find(' ', 4);
    const std::string path = line.substr(4, pathEnd == std::string::npos ? std::string::npos : pathEnd - 4);
    if (path != "/metrics") {
        respond(fd, "404 Not Found", "text/plain", "the metrics are at /metrics\n");
        return 0;
    }
    std::string problem;
    const std::string text = fetchMetrics(problem);
    if (text.empty()) {
        std::fprintf(stderr, "vexa_metrics: %s\n", problem.c_str());
        respond(fd, "503 Service Unavailable", "text/plain", "vexa service not reachable: " + problem + "\n");
        return 0;
    }
    respond(fd, "200 OK", "text/plain; version=0.0.4; charset=utf-8", text);
    return 0;
}
