#include "logger.h"

#include <cstdarg>
#include <ctime>
#include <syslog.h>

#include <systemd/sd-journal.h>

namespace Vexa {

namespace {

// CODE_FILE names the header that declares the templates; CODE_LINE is fixed per template.
constexpr const char* codeFile = "CODE_FILE=src/common/logger.h";

constexpr LogTemplate errorTemplate{LOG_ERR, "CODE_LINE=124", "error"};
constexpr LogTemplate warningTemplate{LOG_WARNING, "CODE_LINE=107", "warning"};
constexpr LogTemplate noticeTemplate{LOG_NOTICE, "CODE_LINE=90", "notice"};
constexpr LogTemplate infoTemplate{LOG_INFO, "CODE_LINE=69", "info"};
constexpr LogTemplate debugTemplate{LOG_DEBUG, "CODE_LINE=53", "debug"};

void write(const LogTemplate& tmpl, const char* format, va_list args) {
    switch (logSink(Syslog::debugLevel(), tmpl.priority)) {
    case LogSink::None:
        return;
    case LogSink::Journal:
        sd_journal_printv_with_location(tmpl.priority, codeFile, tmpl.codeLine, tmpl.name, format, args);
        return;
    case LogSink::Console:
        Syslog::fprintf_time(stderr, "[%x %X]\t");
        vfprintf(stderr, format, args);
        fputc('\n', stderr);
        return;
    }
}

} // namespace

std::atomic<int> Syslog::level{static_cast<int>(DebugLevel::None)};

LogSink logSink(DebugLevel level, int priority) noexcept {
    switch (level) {
    case DebugLevel::Silent:
        return LogSink::None;
    case DebugLevel::Console:
        return LogSink::Console;
    case DebugLevel::None:
        return priority <= LOG_NOTICE ? LogSink::Journal : LogSink::None;
    case DebugLevel::Info:
        return priority <= LOG_INFO ? LogSink::Journal : LogSink::None;
    case DebugLevel::Debug:
    case DebugLevel::Trace:
        return LogSink::Journal;
    }
    return LogSink::None;
}

Syslog::Syslog(const char* ident) : ident_(ident ? ident : "") {}

#define VEXA_LOG_TEMPLATE(fn, tmpl)                                                                                    \
    void Syslog::fn(const char* format, ...) {                                                                         \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        write(tmpl, format, args);                                                                                     \
        va_end(args);                                                                                                  \
    }

VEXA_LOG_TEMPLATE(error, errorTemplate)
VEXA_LOG_TEMPLATE(warning, warningTemplate)
VEXA_LOG_TEMPLATE(notice, noticeTemplate)
VEXA_LOG_TEMPLATE(info, infoTemplate)
VEXA_LOG_TEMPLATE(debug, debugTemplate)

#undef VEXA_LOG_TEMPLATE

DebugLevel Syslog::debugLevel() noexcept {
    return static_cast<DebugLevel>(level.load(std::memory_order_relaxed));
}

bool Syslog::isDebugLevel(DebugLevel lvl) noexcept {
    return debugLevel() == lvl;
}

bool Syslog::isTraceMode() noexcept {
    return debugLevel() == DebugLevel::Trace;
}

void Syslog::setDebugLevel(DebugLevel lvl) noexcept {
    level.store(static_cast<int>(lvl), std::memory_order_relaxed);
}

void Syslog::setDebugLevel(const std::string& name) {
    info("%s: level: %s", "setDebugLevel", name.c_str());

    if (name == "debug") {
        setDebugLevel(DebugLevel::Debug);
    } else if (name == "trace") {
        setDebugLevel(DebugLevel::Trace);
    } else if (name == "info") {
        setDebugLevel(DebugLevel::Info);
    } else if (name == "none") {
        setDebugLevel(DebugLevel::None);
    } else {
        error("%s: unknown level: %s", "setDebugLevel", name.c_str());
    }
}

void Syslog::fprintf_time(FILE* stream, const char* format) {
    char buf[80];
    const std::time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    const size_t len = std::strftime(buf, sizeof(buf) - 1, format, &local);
    fwrite(buf, 1, len, stream);
}

} // namespace Vexa
