#include "vexactl/commands.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>

#include <json/reader.h>
#include <json/writer.h>

#include "vexactl/bus.h"
#include "vexactl/report.h"

namespace Vexa::Ctl {

const char* const usageText = R"(usage: vexactl COMMAND [ARGUMENTS]
  status                                  the daemon: version, interface, counters, load
  sessions [--json]                       every session: id, user, display, state, transports, since, idle
  show ID [--json]                        the document of one session
  shutdown ID | shutdown --user NAME      end a session, or every session of a user
  disconnect ID                           end the transports of a session; the session goes on
  policy [--json]                         the default policies and time limits
  policy ID|all NAME VALUE...             set a policy of a session, or of every session and the default
  limit [--json]                          the default resource limits
  limit ID|all|--user LOGIN NAME VALUE    set a resource limit of a session, every session or a user's slice
  limit sessions|users N                  the most sessions or users at once (0: the configuration's)
  notify ID TEXT [--title T] [--urgency low|normal|critical]
  programs                                the programs published to remote clients
  log-level none|info|debug|trace         the daemon's log level
  metrics                                 the daemon's counters in the Prometheus text format
Exit status: 0 done, 1 refused or failed, 2 usage, 3 unknown session or user, 4 access denied, 5 not running.
See vexactl(1).
)";

namespace {

[[noreturn]] void usage(const std::string& text) {
    throw CtlError(Exit::Usage, text);
}

Json::Value parseJson(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        throw CtlError(Exit::Failed, "the daemon sent a document that is not JSON: " + errors);
    }
    return value;
}

void printJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    std::printf("%s\n", Json::writeString(writer, value).c_str());
}

// Takes "--json" out of the words; true when it was there.
bool takeFlag(Words& words, const std::string& flag) {
    const auto it = std::find(words.begin(), words.end(), flag);
    if (it == words.end()) {
        return false;
    }
    words.erase(it);
    return true;
}

// Takes "--name VALUE" out of the words.
std::optional<std::string> takeOption(Words& words, const std::string& name) {
    const auto it = std::find(words.begin(), words.end(), name);
    if (it == words.end()) {
        return std::nullopt;
    }
    if (it + 1 == words.end()) {
        usage(name + " needs a value");
    }
    std::string value = *(it + 1);
    words.erase(it, it + 2);
    return value;
}

void expectCount(const Words& words, size_t count, const char* what) {
    if (words.size() != count) {
        usage(std::string("expected ") + what);
    }
}

uint32_t sessionId(const std::string& word) {
    const auto id = parseSessionId(word);
    if (!id) {
        usage("not a session id: " + word);
    }
    return *id;
}

// The document of a session that exists; CtlError UnknownId otherwise.
Json::Value sessionDocument(Bus& bus, uint32_t id) {
    Json::Value doc = parseJson(bus.call("vexaSessionInfoJson", "u", id).string());
    if (!doc.isObject() || doc.empty()) {
        throw CtlError(Exit::UnknownId, "no session with id " + std::to_string(id));
    }
    return doc;
}

void requireUserSessions(Bus& bus, const std::string& user) {
    const Json::Value list = parseJson(bus.call("vexaUserInfoJson", "s", user.c_str()).string());
    if (!list.isArray() || list.empty()) {
        throw CtlError(Exit::UnknownId, "no session of user " + user);
    }
}

uint32_t number(const std::string& word) {
    const auto value = parseUnsigned(word);
    if (!value) {
        usage("not a number: " + word);
    }
    return *value;
}

bool onOff(const std::string& word) {
    const auto value = parseSwitch(word);
    if (!value) {
        usage("expected on or off, not " + word);
    }
    return *value;
}

void status(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    expectCount(words, 0, "no arguments");
    Json::Value out(Json::objectValue);
    out["alive"] = bus.call("vexaStatus", "").boolean();
    out["version"] = bus.call("vexaTest", "").string();
    out["api"] = bus.call("vexaApiVersion", "").u32();
    out["sessions"] = bus.call("zabbixSessionsTotal", "").u32();
    out["online"] = bus.call("zabbixSessionsOnline", "").u32();
    out["load"] = bus.call("vexaLoadAverage", "").real();
    if (json) {
        printJson(out);
        return;
    }
    std::printf("service:   %s\nversion:   %s\ninterface: %u\nsessions:  %u running, %u with a transport\n"
                "load:      %.1f%% of the machine (5 minutes)\n",
                out["alive"].asBool() ? "running" : "not answering", out["version"].asCString(), out["api"].asUInt(),
                out["sessions"].asUInt(), out["online"].asUInt(), out["load"].asDouble());
}

void sessions(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    expectCount(words, 0, "no arguments besides --json");
    std::vector<SessionRow> rows;
    const int64_t now = std::time(nullptr);
    for (const auto& [user, id] : bus.call("vexaSessions", "").userSessions()) {
        const Json::Value doc = parseJson(bus.call("vexaSessionInfoJson", "u", id).string());
        if (doc.isObject() && !doc.empty()) { // gone meanwhile otherwise
            rows.push_back(sessionRow(id, doc, now));
        }
    }
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
    if (json) {
        printJson(sessionsJson(rows));
    } else {
        std::fputs(sessionsTable(rows).c_str(), stdout);
    }
}

void show(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    expectCount(words, 1, "a session id");
    const uint32_t id = sessionId(words[0]);
    if (json) {
        const std::string text = bus.call("vexaSessionInfoJson", "u", id).string();
        if (text == "{}") {
            throw CtlError(Exit::UnknownId, "no session with id " + std::to_string(id));
        }
        std::printf("%s\n", text.c_str());
        return;
    }
    std::fputs(documentText(sessionDocument(bus, id)).c_str(), stdout);
}

void shutdown(Bus& bus, Words words) {
    if (const auto user = takeOption(words, "--user")) {
        expectCount(words, 0, "--user NAME or a session id");
        bus.checkRole("busSessionShutdown");
        requireUserSessions(bus, *user);
        if (!bus.call("busSessionShutdown", "s", user->c_str()).boolean()) {
            throw CtlError(Exit::Failed, "the sessions of " + *user + " were not shut down (see journalctl -u vexa)");
        }
        std::printf("sessions of %s: shutting down\n", user->c_str());
        return;
    }
    expectCount(words, 1, "a session id or --user NAME");
    const uint32_t id = sessionId(words[0]);
    bus.checkRole("vexaSessionShutdown");
    sessionDocument(bus, id);
    if (!bus.call("vexaSessionShutdown", "u", id).boolean()) {
        throw CtlError(Exit::Failed, "session " + words[0] + " was not shut down (see journalctl -u vexa)");
    }
    std::printf("session %u: shutting down\n", id);
}

void disconnect(Bus& bus, Words words) {
    expectCount(words, 1, "a session id");
    const uint32_t id = sessionId(words[0]);
    bus.checkRole("vexaDisconnect");
    sessionDocument(bus, id);
    if (!bus.call("vexaDisconnect", "u", id).boolean()) {
        throw CtlError(Exit::Failed, "session " + words[0] + " has no transport to disconnect");
    }
    std::printf("session %u: transports disconnected\n", id);
}

// A target of a setter: one session (checked), or every session and the default (-1).
int32_t target(Bus& bus, const std::string& word) {
    if (word == "all") {
        return -1;
    }
    const uint32_t id = sessionId(word);
    sessionDocument(bus, id);
    return static_cast<int32_t>(id);
}

// One setter of `policy`: how many values it takes, the call, and what the session document says after it.
struct PolicySetter {
    const char* method;
    size_t values;
    std::function<void(Bus&, int32_t, const Words&)> set;
    std::function<Json::Value(const Words&)> expected; // keys of the document and their values
};

PolicySetter redirectSetter(const char* method, const char* key) {
    return {method, 1, [method](Bus& bus, int32_t id, const Words& v) { bus.call(method, "ib", id, int{onOff(v[0])}); },
            [key](const Words& v) {
                Json::Value e;
                e[key] = onOff(v[0]);
                return e;
            }};
}

PolicySetter secondsSetter(const char* method, const char* key) {
    return {method, 1, [method](Bus& bus, int32_t id, const Words& v) { bus.call(method, "iu", id, number(v[0])); },
            [key](const Words& v) {
                Json::Value e;
                e[key] = number(v[0]);
                return e;
            }};
}

// client2server, server2client from "both", "none", "to-server", "to-client".
std::pair<bool, bool> clipboardWord(const std::string& word) {
    static const std::map<std::string, std::pair<bool, bool>> words{
        {"both", {true, true}}, {"none", {false, false}}, {"to-server", {true, false}}, {"to-client", {false, true}}};
    const auto it = words.find(word);
    if (it == words.end()) {
        usage("clipboard: expected both, none, to-server or to-client, not " + word);
    }
    return it->second;
}

const std::map<std::string, PolicySetter>& policySetters() {
    static const std::map<std::string, PolicySetter> table{
        {"printer", redirectSetter("vexaSessionPolicyRedirectPrinter", "redirect:printer")},
        {"audio", redirectSetter("vexaSessionPolicyRedirectAudio", "redirect:audio")},
        {"microphone", redirectSetter("vexaSessionPolicyRedirectMicrophone", "redirect:microphone")},
        {"drive", redirectSetter("vexaSessionPolicyRedirectDrive", "redirect:drive")},
        {"smartcard", redirectSetter("vexaSessionPolicyRedirectSmartcard", "redirect:smartcard")},
        {"clipboard-file", redirectSetter("vexaSessionPolicyRedirectClipboardFile", "redirect:clipboard:file")},
        {"freeze", redirectSetter("vexaSessionDisconnectedFreeze", "disconnected:freeze")},
        {"clipboard",
         {"vexaSessionPolicyRedirectClipboard", 1,
          [](Bus& bus, int32_t id, const Words& v) {
              const auto [toServer, toClient] = clipboardWord(v[0]);
              bus.call("vexaSessionPolicyRedirectClipboard", "ibb", id, int{toServer}, int{toClient});
          },
          [](const Words& v) {
              const auto [toServer, toClient] = clipboardWord(v[0]);
              Json::Value e;
              // The interface's names: "server" is the first flag (client to server), "client" the second.
              e["redirect:clipboard:server"] = toServer;
              e["redirect:clipboard:client"] = toClient;
              return e;
          }}},
        {"clipboard-limit", secondsSetter("vexaSessionPolicyRedirectClipboardLimit", "redirect:clipboard:limit")},
        {"connect",
         {"vexaSessionPolicyConnect", 1,
          [](Bus& bus, int32_t id, const Words& v) {
              const auto policy = parseConnectPolicy(v[0]);
              if (!policy) {
                  usage("connect: expected next-deny, prev-replace or multi-allow, not " + v[0]);
              }
              bus.call("vexaSessionPolicyConnect", "iu", id, *policy);
          },
          [](const Words& v) {
              Json::Value e;
              e["policy:connect"] = parseConnectPolicy(v[0]).value_or(0);
              return e;
          }}},
        {"keepalive",
         {"vexaSessionPolicyRdpKeepAlive", 2,
          [](Bus& bus, int32_t id, const Words& v) {
              bus.call("vexaSessionPolicyRdpKeepAlive", "iuu", id, number(v[0]), number(v[1]));
          },
          [](const Words& v) {
              Json::Value e;
              e["rdp:keepalive:interval"] = number(v[0]);
              e["rdp:keepalive:failures"] = number(v[1]);
              return e;
          }}},
        {"duration", secondsSetter("vexaSessionDurationLimit", "duration:limit")},
        {"inactivity", secondsSetter("vexaSessionInactivityLimit", "inactivity:limit")},
        {"disconnect", secondsSetter("vexaSessionDisconnectLimit", "disconnect:limit")},
        {"seamless", secondsSetter("vexaSessionSeamlessLimit", "seamless:limit")},
    };
    return table;
}

void showPolicyDefaults(Bus& bus, bool json) {
    const uint32_t clipboard = bus.call("vexaPolicyRedirectClipboardDefault", "").u32();
    const uint64_t keepAlive = bus.call("vexaPolicyRdpKeepAliveDefault", "").u64();
    // Bit 24: client to server, bit 25: server to client.
    const bool toServer = clipboard & (1u << 24), toClient = clipboard & (1u << 25);
    Json::Value out(Json::objectValue);
    out["printer"] = bus.call("vexaPolicyRedirectPrinterDefault", "").boolean();
    out["audio"] = bus.call("vexaPolicyRedirectAudioDefault", "").boolean();
    out["microphone"] = bus.call("vexaPolicyRedirectMicrophoneDefault", "").boolean();
    out["drive"] = bus.call("vexaPolicyRedirectDriveDefault", "").boolean();
    out["smartcard"] = bus.call("vexaPolicyRedirectSmartcardDefault", "").boolean();
    out["clipboard"] = toServer && toClient ? "both" : toServer ? "to-server" : toClient ? "to-client" : "none";
    out["clipboard-file"] = bus.call("vexaPolicyRedirectClipboardFileDefault", "").boolean();
    out["clipboard-limit"] = bus.call("vexaPolicyRedirectClipboardLimitDefault", "").u32();
    out["connect"] = connectPolicyWord(bus.call("vexaPolicyConnectDefault", "").u32());
    out["keepalive"] = std::to_string(keepAlive & 0xffffffffu) + " " + std::to_string(keepAlive >> 32);
    out["freeze"] = bus.call("vexaSessionDisconnectedFreezeDefault", "").boolean();
    out["duration"] = bus.call("vexaDurationTimeoutDefault", "").u32();
    out["inactivity"] = bus.call("vexaInactivityTimeoutDefault", "").u32();
    out["disconnect"] = bus.call("vexaDisconnectTimeoutDefault", "").u32();
    out["seamless"] = bus.call("vexaSeamlessTimeoutDefault", "").u32();
    if (json) {
        printJson(out);
    } else {
        std::fputs(documentText(out).c_str(), stdout);
    }
}

void policy(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    if (words.empty()) {
        showPolicyDefaults(bus, json);
        return;
    }
    if (words.size() < 2) {
        usage("expected policy ID|all NAME VALUE");
    }
    const auto it = policySetters().find(words[1]);
    if (it == policySetters().end()) {
        usage("unknown policy: " + words[1]);
    }
    const PolicySetter& setter = it->second;
    const Words values(words.begin() + 2, words.end());
    if (values.size() != setter.values) {
        usage(words[1] + (setter.values == 1 ? " takes one value" : " takes two values"));
    }
    const Json::Value expected = setter.expected(values); // the values are checked before anything is sent
    bus.checkRole(setter.method);
    const int32_t id = target(bus, words[0]);
    setter.set(bus, id, values);
    if (id >= 0) {
        // The setters answer nothing; the document tells whether the daemon applied it (polkit may say no).
        const Json::Value doc = sessionDocument(bus, static_cast<uint32_t>(id));
        for (const auto& key : expected.getMemberNames()) {
            // Compared as numbers where both are: the reader types a number by its text, not by the setter's type.
            const bool numbers = doc[key].isNumeric() && expected[key].isNumeric() && !doc[key].isBool();
            if (numbers ? doc[key].asDouble() != expected[key].asDouble() : doc[key] != expected[key]) {
                throw CtlError(Exit::AccessDenied,
                               "session " + words[0] + ": " + words[1] +
                                   " was not applied: the daemon refused it (see journalctl -u vexa)");
            }
        }
    }
    std::printf("%s %s: %s\n", id < 0 ? "every session and the default" : ("session " + words[0]).c_str(),
                words[1].c_str(), values.size() == 1 ? values[0].c_str() : (values[0] + " " + values[1]).c_str());
}

// One resource limit: the setters of a session and of a login, the signature of the value and the default getter.
struct LimitSetter {
    const char* session;
    const char* user;
    bool text; // the value is a string (s), else a number (u)
    const char* defaultGetter;
};

const std::map<std::string, LimitSetter>& limitSetters() {
    static const std::map<std::string, LimitSetter> table{
        {"cpu-weight", {"vexaSessionLimitCpuWeight", "vexaUserLimitCpuWeight", false, "vexaCpuWeightDefault"}},
        {"cpu-quota", {"vexaSessionLimitCpuQuota", "vexaUserLimitCpuQuota", false, "vexaCpuQuotaDefault"}},
        {"memory-high", {"vexaSessionLimitMemoryHigh", "vexaUserLimitMemoryHigh", true, "vexaMemoryHighDefault"}},
        {"memory-max", {"vexaSessionLimitMemoryMax", "vexaUserLimitMemoryMax", true, "vexaMemoryMaxDefault"}},
        {"tasks-max", {"vexaSessionLimitTasksMax", "vexaUserLimitTasksMax", false, "vexaTasksMaxDefault"}},
        {"network-deny", {"vexaSessionNetworkDeny", "vexaUserNetworkDeny", true, "vexaNetworkDenyDefault"}},
        {"network-allow", {"vexaSessionNetworkAllow", "vexaUserNetworkAllow", true, "vexaNetworkAllowDefault"}},
    };
    return table;
}

void limit(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    const auto user = takeOption(words, "--user");
    if (words.empty() && !user) {
        Json::Value out(Json::objectValue);
        for (const auto& [name, setter] : limitSetters()) {
            const Reply reply = bus.call(setter.defaultGetter, "");
            out[name] = setter.text ? Json::Value(reply.string()) : Json::Value(reply.u32());
        }
        json ? printJson(out) : (void)std::fputs(documentText(out).c_str(), stdout);
        return;
    }
    if (!user && words.size() == 2 && (words[0] == "sessions" || words[0] == "users")) {
        const uint32_t count = number(words[1]);
        bus.call(words[0] == "sessions" ? "vexaSessionsLimit" : "vexaUsersLimit", "u", count);
        std::printf("%s limit: %s\n", words[0].c_str(), count ? words[1].c_str() : "the configuration's");
        return;
    }
    if (words.size() != (user ? 2u : 3u)) {
        usage("expected limit ID|all|--user LOGIN NAME VALUE");
    }
    const std::string& name = words[user ? 0 : 1];
    const std::string& value = words[user ? 1 : 2];
    const auto it = limitSetters().find(name);
    if (it == limitSetters().end()) {
        usage("unknown limit: " + name);
    }
    const LimitSetter& setter = it->second;
    const uint32_t amount = setter.text ? 0 : number(value);
    bus.checkRole(user ? setter.user : setter.session);
    if (user) {
        requireUserSessions(bus, *user);
        setter.text ? bus.call(setter.user, "ss", user->c_str(), value.c_str())
                    : bus.call(setter.user, "su", user->c_str(), amount);
        std::printf("user %s %s: %s\n", user->c_str(), name.c_str(), value.c_str());
        return;
    }
    const int32_t id = target(bus, words[0]);
    setter.text ? bus.call(setter.session, "is", id, value.c_str()) : bus.call(setter.session, "iu", id, amount);
    std::printf("%s %s: %s\n", id < 0 ? "every session and the default" : ("session " + words[0]).c_str(), name.c_str(),
                value.c_str());
}

void notify(Bus& bus, Words words) {
    const std::string title = takeOption(words, "--title").value_or("Message from the administrator");
    const std::string urgencyWord = takeOption(words, "--urgency").value_or("normal");
    static const std::map<std::string, uint8_t> urgencies{{"low", 0}, {"normal", 1}, {"critical", 2}};
    const auto urgency = urgencies.find(urgencyWord);
    if (urgency == urgencies.end()) {
        usage("--urgency: expected low, normal or critical");
    }
    expectCount(words, 2, "a session id and the text");
    const uint32_t id = sessionId(words[0]);
    bus.checkRole("vexaSendNotify");
    sessionDocument(bus, id);
    if (!bus.call("vexaSendNotify", "ussy", id, title.c_str(), words[1].c_str(), urgency->second).boolean()) {
        throw CtlError(Exit::Failed, "the message was not shown in session " + words[0] + " (see journalctl -u vexa)");
    }
    std::printf("session %u: message shown\n", id);
}

void programs(Bus& bus, Words words) {
    const bool json = takeFlag(words, "--json");
    expectCount(words, 0, "no arguments besides --json");
    const auto list = bus.call("vexaProgramList", "").strings();
    if (json) {
        Json::Value out(Json::arrayValue);
        for (const auto& item : list) {
            out.append(item);
        }
        printJson(out);
        return;
    }
    for (const auto& item : list) {
        std::printf("%s\n", item.c_str());
    }
}

void logLevel(Bus& bus, Words words) {
    expectCount(words, 1, "a level: none, info, debug or trace");
    if (words[0] != "none" && words[0] != "info" && words[0] != "debug" && words[0] != "trace") {
        usage("unknown level: " + words[0] + " (none, info, debug or trace)");
    }
    bus.call("busSetDebugLevel", "s", words[0].c_str());
    std::printf("log level: %s\n", words[0].c_str());
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature of the command table
void metrics(Bus& bus, Words words) {
    expectCount(words, 0, "no arguments");
    std::fputs(bus.metricsText().c_str(), stdout);
}

} // namespace

void runCommand(Bus& bus, const Words& words) {
    static const std::map<std::string, void (*)(Bus&, Words)> commands{
        {"status", status},         {"sessions", sessions},  {"show", show},       {"shutdown", shutdown},
        {"disconnect", disconnect}, {"policy", policy},      {"limit", limit},     {"notify", notify},
        {"programs", programs},     {"log-level", logLevel}, {"metrics", metrics},
    };
    const auto it = commands.find(words.at(0));
    if (it == commands.end()) {
        usage("unknown command: " + words[0]);
    }
    it->second(bus, Words(words.begin() + 1, words.end()));
}

} // namespace Vexa::Ctl
