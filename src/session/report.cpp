#include "report.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <concepts>
#include <list>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include <json/value.h>
#include <json/writer.h>

#include "common/logger.h"
#include "common/utils.h"
#include "redirect_policy.h"

namespace Vexa {

namespace fs = std::filesystem;

namespace {

// A JSON string literal. Going through a Json::Value keeps embedded NUL bytes; with "emitUTF8" off every
// non-ASCII character becomes a \u sequence, so account data that is not valid UTF-8 cannot make the reply
// unsendable over D-Bus.
std::string jsonString(std::string_view text) {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder settings;
        settings["indentation"] = "";
        settings["emitUTF8"] = false;
        return settings;
    }();
    return Json::writeString(builder, Json::Value(text.data(), text.data() + text.size()));
}

// Writes the members of one object in the order they are added.
class ObjectText {
public:
    ObjectText& string(std::string_view key, std::string_view value) { return raw(key, jsonString(value)); }

    template <std::integral Number>
    requires(!std::same_as<Number, bool>) ObjectText& number(std::string_view key, Number value) {
        // Promoted so that 8-bit values print as numbers, not characters.
        return raw(key, std::to_string(+value));
    }

    ObjectText& boolean(std::string_view key, bool value) { return raw(key, value ? "true" : "false"); }

    // `json` is already JSON text (an array or object).
    ObjectText& raw(std::string_view key, std::string_view json) {
        if (text.size() > 1) {
            text += ',';
        }
        text += jsonString(key);
        text += ':';
        text += json;
        return *this;
    }

    // Ends the object; the writer is not used afterwards.
    std::string close() {
        text += '}';
        return std::move(text);
    }

private:
    std::string text{"{"};
};

// Appends one element to JSON array text that is still open ("[" ...).
void appendElement(std::string& array, const std::string& element) {
    if (array.size() > 1) {
        array += ',';
    }
    array += element;
}

int64_t epochSeconds(Session::SystemTime timepoint) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(timepoint.time_since_epoch());
    return nanoseconds.count() / 1'000'000'000;
}

std::string stringArray(const std::list<std::string>& values) {
    std::string array = "[";
    for (const auto& value : values) {
        appendElement(array, jsonString(value));
    }
    return array + ']';
}

// One object per scope that holds a limit. An empty value stands for the systemd default, which is no limit,
// so it is not reported.
std::string resourceLimitsArray(const Session& session) {
    const std::pair<const char*, const ResourceLimits*> scopes[] = {
        {"user", session.user ? &session.user->userLimits : nullptr},
        {"session", &session.sessionLimits},
    };
    std::string array = "[";
    for (const auto& [scope, limits] : scopes) {
        if (limits == nullptr) {
            continue;
        }
        ObjectText entry;
        entry.string("scope", scope);
        bool any = false;
        for (const auto& [control, value] : *limits) {
            const char* name = ResourceControlJsonName(control);
            if (name != nullptr && !value.empty()) {
                entry.string(name, value);
                any = true;
            }
        }
        if (any) {
            appendElement(array, entry.close());
        }
    }
    return array + ']';
}

std::string transportsArray(const Session& session) {
    std::string array = "[";
    for (const auto& slot : session.transports) {
        if (slot.pid > 0) {
            appendElement(array, ObjectText().string("remoteaddr", slot.remoteaddr).number("pid", slot.pid).close());
        }
    }
    return array + ']';
}

// The process id named by a /proc entry; none for the entries that are not processes ("self", "sys", ...).
std::optional<pid_t> processId(const std::string& name) {
    pid_t pid = 0;
    const char* end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data(), end, pid);
    if (error != std::errc() || stop != end || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

} // namespace

std::string sessionJson(const Session& session, const std::optional<DisplayGeometry>& geometry, bool withNtlm) {
    ObjectText json;
    if (const auto& user = session.user) {
        json.string("home", user->home)
            .string("runtimedir", user->runtimedir.string())
            .string("gecos", user->gecos)
            .string("shell", user->shell)
            .string("username", user->name)
            .string("domain", user->domain)
            .string("ntlm", withNtlm ? user->ntlm : std::string())
            .number("uid", user->uid)
            .number("gid", user->gid)
            .boolean("profile:mounted", user->profileMounted)
            .number("user:sessions", user.use_count());
    }
    json.string("xauthfile", session.xauthfile.string())
        .string("gus:id", session.gusId)
        .string("xsession:name", session.xsessionName)
        .string("xsession:prog", session.xsessionProg)
        .raw("xsession:args", stringArray(session.xsessionArgs));

    json.number("display", session.display)
        .string("dbus:address", session.dbusAddress)
        .number("duration:limit", session.durationLimit)
        .number("inactivity:limit", session.inactivityLimit)
        .number("disconnect:limit", session.disconnectLimit)
        .number("seamless:limit", session.seamlessLimit)
        .number("clipboard:limit", session.clipboardLimit)
        .number("pid2", session.pid2)
        .number("assistance", session.assistance)
        .number("started:timepoint", epochSeconds(session.startedTimepoint))
        .number("onlined:timepoint", epochSeconds(session.onlinedTimepoint))
        .number("disconnected:timepoint", epochSeconds(session.disconnectedTimepoint));

    json.boolean("remote:connected", session.haveActiveConnects())
        .string("systemd:sid", session.systemdSid)
        .string("systemd:slice", session.systemdSlice)
        .string("systemd:cgroup", session.systemdCgroup)
        .raw("resource:limits", resourceLimitsArray(session))
        .raw("remote:connects", transportsArray(session));

    if (geometry) {
        json.number("depth", geometry->depth).number("width", geometry->width).number("height", geometry->height);
    }

    json.boolean("sec:nla", session.secNla)
        .boolean("sec:tls", session.secTls)
        .boolean("sec:rdp", session.secRdp)
        .boolean("sec:auth", session.secAuth);

    const auto redirect = [word = session.redirectPolicy](RedirectBit bit) { return redirectAllowed(word, bit); };
    json.boolean("redirect:printer", redirect(RedirectBit::Printer))
        .boolean("redirect:audio", redirect(RedirectBit::Audio))
        .boolean("redirect:microphone", redirect(RedirectBit::Microphone))
        .boolean("redirect:drive", redirect(RedirectBit::Drive))
        .boolean("redirect:smartcard", redirect(RedirectBit::Smartcard))
        .boolean("redirect:clipboard:server", redirect(RedirectBit::ClipboardServer))
        .boolean("redirect:clipboard:client", redirect(RedirectBit::ClipboardClient))
        .boolean("redirect:clipboard:file", redirect(RedirectBit::ClipboardFile))
        .number("redirect:clipboard:limit", session.clipboardLimit);

    json.number("policy:connect", static_cast<uint32_t>(session.policyConnect))
        .boolean("disconnected:freeze", session.disconnectedFreeze)
        .number("rdp:keepalive:interval", session.rdpKeepAliveInterval)
        .number("rdp:keepalive:failures", session.rdpKeepAliveFailures)
        .boolean("seamless:mode", session.seamlessMode)
        .boolean("login:mode", session.loginMode)
        .boolean("session:frozen", session.frozen());
    return json.close();
}

std::string userProcessesJson(uid_t uid, const fs::path& procDir) {
    std::string array = "[";
    std::error_code ec;
    fs::directory_iterator entries(procDir, ec);
    for (; !ec && entries != fs::directory_iterator(); entries.increment(ec)) {
        const auto& entry = *entries;
        const auto pid = processId(entry.path().filename().string());
        std::error_code typeError;
        if (!pid || !entry.is_directory(typeError)) {
            continue;
        }
        struct stat st {};
        if (::stat(entry.path().c_str(), &st) != 0) {
            const int err = errno;
            Syslog::error("%s: %s failed, error: %s, code: %d", "vexaSessionProcess", "stat",
                          Utils::errnoText(err).c_str(), err);
            continue;
        }
        if (st.st_uid != uid) {
            continue;
        }
        // Kernel threads and processes that have just gone have no readable executable.
        std::error_code linkError;
        const auto exe = fs::read_symlink(entry.path() / "exe", linkError);
        if (!linkError) {
            appendElement(array, ObjectText().number("pid", *pid).string("cmd", exe.string()).close());
        }
    }
    if (ec) {
        Syslog::error("%s: %s failed, error: %s, code: %d", "vexaSessionProcess", "directory_iterator",
                      ec.message().c_str(), ec.value());
    }
    return array + ']';
}

} // namespace Vexa
