#include "state.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

#include "common/json_config.h"
#include "common/logger.h"
#include "common/utils.h"

namespace Vexa {

namespace fs = std::filesystem;

namespace {

// The saved fields in file order.
struct StateField {
    const char* key;
    uint32_t (*get)(const Session&);
    void (*set)(Session&, uint32_t);
};

constexpr StateField stateFields[] = {
    {"duration:limit", [](const Session& s) { return s.durationLimit; },
     [](Session& s, uint32_t v) { s.durationLimit = v; }},
    {"inactivity:limit", [](const Session& s) { return s.inactivityLimit; },
     [](Session& s, uint32_t v) { s.inactivityLimit = v; }},
    {"disconnect:limit", [](const Session& s) { return s.disconnectLimit; },
     [](Session& s, uint32_t v) { s.disconnectLimit = v; }},
    {"seamless:limit", [](const Session& s) { return s.seamlessLimit; },
     [](Session& s, uint32_t v) { s.seamlessLimit = v; }},
    {"clipboard:limit", [](const Session& s) { return s.clipboardLimit; },
     [](Session& s, uint32_t v) { s.clipboardLimit = v; }},
    {"redirect:policy", [](const Session& s) { return s.redirectPolicy; },
     [](Session& s, uint32_t v) { s.redirectPolicy = v; }},
    {"connect:policy", [](const Session& s) { return static_cast<uint32_t>(s.policyConnect); },
     [](Session& s, uint32_t v) { s.policyConnect = static_cast<ConnectPolicy>(v); }},
    {"rdp:keepalive:interval", [](const Session& s) { return s.rdpKeepAliveInterval; },
     [](Session& s, uint32_t v) { s.rdpKeepAliveInterval = v; }},
    {"rdp:keepalive:failures", [](const Session& s) { return s.rdpKeepAliveFailures; },
     [](Session& s, uint32_t v) { s.rdpKeepAliveFailures = v; }},
};

} // namespace

fs::path sessionStatePath(const fs::path& storeDir, int32_t uid) {
    return storeDir / (std::to_string(uid) + ".json");
}

std::string sessionStateText(const Session& session) {
    std::string text = "{";
    for (const auto& field : stateFields) {
        if (text.size() > 1) {
            text += ',';
        }
        text += '"';
        text += field.key;
        text += "\":";
        text += std::to_string(field.get(session));
    }
    text += "}\n";
    return text;
}

bool sessionSaveState(const Session* session, const fs::path& storeDir) {
    if (session == nullptr || !session->user || session->user->uid < 0) {
        return false;
    }
    const auto path = sessionStatePath(storeDir, session->user->uid);
    const auto text = sessionStateText(*session);

    return Utils::writeFileAtomically(path, text, 0640, "sessionSaveState");
}

void sessionLoadState(Session* session, const fs::path& storeDir) {
    if (session == nullptr || !session->user || session->user->uid < 0) {
        return;
    }
    const auto path = sessionStatePath(storeDir, session->user->uid);
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(path, ec))) {
        return;
    }

    const auto json = readJson(path);
    if (!json.isObject()) {
        Syslog::error("%s: json not object, file: %s", "sessionLoadState", path.c_str());
        return;
    }
    for (const auto& field : stateFields) {
        const std::string_view key = field.key;
        const auto* value = json.find(key.data(), key.data() + key.size());
        if (value == nullptr) {
            continue;
        }
        if (value->isInt()) {
            field.set(*session, static_cast<uint32_t>(value->asInt()));
        } else if (value->isUInt()) {
            field.set(*session, value->asUInt());
        } else {
            Syslog::warning("%s: value not integer, key: %s, file: %s", "sessionLoadState", field.key, path.c_str());
        }
    }
}

} // namespace Vexa
