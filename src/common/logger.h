#pragma once

// Logging facility of the service: one process-wide level, five printf-style templates and two sinks
// (the systemd journal, or standard error with a time stamp in console mode).
// Thread-safe: the level is an atomic read by every thread; sinks are written without a lock of our own.

#include <atomic>
#include <cstdio>
#include <string>

#define VEXA_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))

namespace Vexa {

enum class DebugLevel : int {
    None = 0,
    Debug = 1,
    Info = 2,
    Silent = 3,
    Console = 4,
    Trace = 5,
};

// One message template: its journal priority, the fixed line reported as CODE_LINE and its own name.
struct LogTemplate {
    int priority;
    const char* codeLine;
    const char* name;
};

enum class LogSink { None, Journal, Console };

// Where a message of the given priority goes at the given level.
LogSink logSink(DebugLevel level, int priority) noexcept;

class Syslog {
public:
    explicit Syslog(const char* ident);
    virtual ~Syslog() = default;

    Syslog(const Syslog&) = delete;
    Syslog& operator=(const Syslog&) = delete;

    static void error(const char* format, ...) VEXA_PRINTF(1, 2);
    static void warning(const char* format, ...) VEXA_PRINTF(1, 2);
    static void notice(const char* format, ...) VEXA_PRINTF(1, 2);
    static void info(const char* format, ...) VEXA_PRINTF(1, 2);
    static void debug(const char* format, ...) VEXA_PRINTF(1, 2);

    static DebugLevel debugLevel() noexcept;
    static bool isDebugLevel(DebugLevel lvl) noexcept;
    static bool isTraceMode() noexcept;
    static void setDebugLevel(DebugLevel lvl) noexcept;
    // Sets the level by its configuration name ("debug", "trace", "info", "none"); other names are refused.
    static void setDebugLevel(const std::string& name);

    // Kept for child processes; nothing to reopen with the journal sink.
    static void syslogChildOpen() noexcept {}
    static void fprintf_time(FILE* stream, const char* format);

    const std::string& ident() const noexcept { return ident_; }

private:
    std::string ident_;
    static std::atomic<int> level;
};

} // namespace Vexa
