#include "record.h"

#include <charconv>
#include <cstring>
#include <sstream>

#include "common/json_config.h"

namespace Vexa {

namespace {

using Clock = std::chrono::system_clock;

int64_t nanoseconds(Clock::time_point point) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(point.time_since_epoch()).count();
}

Clock::time_point timePoint(int64_t ns) {
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(ns)));
}

Json::Value limitsValue(const ResourceLimits& limits) {
    Json::Value object(Json::objectValue);
    for (const auto& [control, value] : limits) {
        if (const char* name = ResourceControlJsonName(control)) {
            object[name] = value;
        }
    }
    return object;
}

Json::Value processValue(const ProcessIdentity& process) {
    Json::Value object(Json::objectValue);
    object["pid"] = process.pid;
    object["start"] = Json::UInt64(process.startTime);
    return object;
}

// Reading: every member must be there with its type, or the record is refused.
struct RecordReader {
    const Json::Value& json;

    const Json::Value& member(const char* name) const {
        const auto* value = json.isObject() ? json.find(name, name + std::strlen(name)) : nullptr;
        if (!value) {
            throw std::invalid_argument(name);
        }
        return *value;
    }
    template <typename Value>
    Value typed(const char* name, bool (Json::Value::*is)() const, Value (Json::Value::*as)() const) const {
        const auto& value = member(name);
        if (!(value.*is)()) {
            throw std::invalid_argument(name);
        }
        return (value.*as)();
    }
    std::string string(const char* name) const { return typed(name, &Json::Value::isString, &Json::Value::asString); }
    bool boolean(const char* name) const { return typed(name, &Json::Value::isBool, &Json::Value::asBool); }
    uint32_t u32(const char* name) const { return typed(name, &Json::Value::isUInt, &Json::Value::asUInt); }
    int32_t i32(const char* name) const { return typed(name, &Json::Value::isInt, &Json::Value::asInt); }
    int64_t i64(const char* name) const { return typed(name, &Json::Value::isInt64, &Json::Value::asInt64); }
    uint64_t u64(const char* name) const { return typed(name, &Json::Value::isUInt64, &Json::Value::asUInt64); }
    ProcessIdentity process(const char* name) const {
        const RecordReader inner{member(name)};
        return ProcessIdentity{inner.i32("pid"), inner.u64("start")};
    }
    ResourceLimits limits(const char* name) const {
        const auto& object = member(name);
        if (!object.isObject()) {
            throw std::invalid_argument(name);
        }
        ResourceLimits limits;
        for (const auto& key : object.getMemberNames()) {
            const auto control = controlNamed(key);
            if (!control || !object[key].isString()) {
                throw std::invalid_argument(name);
            }
            limits[*control] = object[key].asString();
        }
        return limits;
    }

    static std::optional<ResourceControl> controlNamed(const std::string& key) {
        for (auto value = static_cast<uint8_t>(ResourceControl::CpuQuota);
             value <= static_cast<uint8_t>(ResourceControl::NetworkAllow); ++value) {
            if (key == ResourceControlJsonName(static_cast<ResourceControl>(value))) {
                return static_cast<ResourceControl>(value);
            }
        }
        return std::nullopt;
    }
};

// The members that the session and its record hold alike, as pairs of member pointers: one list for both
// directions, so that neither can miss a member the other has.
template <typename Each>
void sameMembers(Each&& each) {
    each(&Session::display, &SessionRecord::display);
    each(&Session::xauthfile, &SessionRecord::xauthfile);
    each(&Session::gusId, &SessionRecord::gusId);
    each(&Session::uizr, &SessionRecord::uizr);
    each(&Session::serverId, &SessionRecord::serverId);
    each(&Session::xsessionName, &SessionRecord::xsessionName);
    each(&Session::xsessionProg, &SessionRecord::xsessionProg);
    each(&Session::xsessionArgs, &SessionRecord::xsessionArgs);
    each(&Session::dbusAddress, &SessionRecord::dbusAddress);
    each(&Session::durationLimit, &SessionRecord::durationLimit);
    each(&Session::inactivityLimit, &SessionRecord::inactivityLimit);
    each(&Session::disconnectLimit, &SessionRecord::disconnectLimit);
    each(&Session::seamlessLimit, &SessionRecord::seamlessLimit);
    each(&Session::clipboardLimit, &SessionRecord::clipboardLimit);
    each(&Session::systemdSid, &SessionRecord::systemdSid);
    each(&Session::systemdSlice, &SessionRecord::systemdSlice);
    each(&Session::systemdCgroup, &SessionRecord::systemdCgroup);
    each(&Session::sessionLimits, &SessionRecord::sessionLimits);
    each(&Session::secNla, &SessionRecord::secNla);
    each(&Session::secTls, &SessionRecord::secTls);
    each(&Session::secRdp, &SessionRecord::secRdp);
    each(&Session::secAuth, &SessionRecord::secAuth);
    each(&Session::redirectPolicy, &SessionRecord::redirectPolicy);
    each(&Session::disconnectedFreeze, &SessionRecord::disconnectedFreeze);
    each(&Session::rdpKeepAliveInterval, &SessionRecord::rdpKeepAliveInterval);
    each(&Session::rdpKeepAliveFailures, &SessionRecord::rdpKeepAliveFailures);
    each(&Session::seamlessMode, &SessionRecord::seamlessMode);
    each(&Session::loginMode, &SessionRecord::loginMode);
    each(&Session::checkTimeouts, &SessionRecord::checkTimeouts);
    each(&Session::policiesChanged, &SessionRecord::policiesChanged);
}

} // namespace

SessionRecord sessionRecordOf(const Session& session) {
    SessionRecord record;
    record.sid = session.sid;
    sameMembers([&](auto inSession, auto inRecord) { record.*inRecord = session.*inSession; });
    if (session.user) {
        record.user = session.user->name;
        record.domain = session.user->domain;
        record.runtimedir = session.user->runtimedir;
        record.userLimits = session.user->userLimits;
    }
    record.xauthInode = session.xauthInode;
    record.manager = ProcessIdentity{session.pid2, session.pid2Start};
    record.startedNs = nanoseconds(session.startedTimepoint);
    record.onlinedNs = nanoseconds(session.onlinedTimepoint);
    record.disconnectedNs = nanoseconds(session.disconnectedTimepoint);
    for (const auto& slot : session.transports) {
        if (slot.pid > 0) {
            record.transports.push_back({ProcessIdentity{slot.pid, slot.startTime}, slot.remoteaddr});
        }
    }
    record.policyConnect = static_cast<uint32_t>(session.policyConnect);
    return record;
}

std::string sessionRecordText(const SessionRecord& record) {
    Json::Value json(Json::objectValue);
    json["sid"] = record.sid;
    json["username"] = record.user;
    json["domain"] = record.domain;
    json["runtimedir"] = record.runtimedir.string();
    json["display"] = record.display;
    json["xauthfile"] = record.xauthfile.string();
    json["xauth:inode"] = Json::UInt64(record.xauthInode);
    json["gus:id"] = record.gusId;
    json["uizr"] = record.uizr;
    json["server:id"] = record.serverId;
    json["xsession:name"] = record.xsessionName;
    json["xsession:prog"] = record.xsessionProg;
    Json::Value args(Json::arrayValue);
    for (const auto& arg : record.xsessionArgs) {
        args.append(arg);
    }
    json["xsession:args"] = args;
    json["dbus:address"] = record.dbusAddress;
    json["duration:limit"] = record.durationLimit;
    json["inactivity:limit"] = record.inactivityLimit;
    json["disconnect:limit"] = record.disconnectLimit;
    json["seamless:limit"] = record.seamlessLimit;
    json["clipboard:limit"] = record.clipboardLimit;
    json["pid2"] = processValue(record.manager);
    json["started:timepoint"] = Json::Int64(record.startedNs);
    json["onlined:timepoint"] = Json::Int64(record.onlinedNs);
    json["disconnected:timepoint"] = Json::Int64(record.disconnectedNs);
    Json::Value transports(Json::arrayValue);
    for (const auto& transport : record.transports) {
        auto slot = processValue(transport.process);
        slot["remoteaddr"] = transport.remoteaddr;
        transports.append(slot);
    }
    json["remote:connects"] = transports;
    json["systemd:sid"] = record.systemdSid;
    json["systemd:slice"] = record.systemdSlice;
    json["systemd:cgroup"] = record.systemdCgroup;
    json["limits:session"] = limitsValue(record.sessionLimits);
    json["limits:user"] = limitsValue(record.userLimits);
    json["sec:nla"] = record.secNla;
    json["sec:tls"] = record.secTls;
    json["sec:rdp"] = record.secRdp;
    json["sec:auth"] = record.secAuth;
    json["redirect:policy"] = record.redirectPolicy;
    json["connect:policy"] = record.policyConnect;
    json["disconnected:freeze"] = record.disconnectedFreeze;
    json["rdp:keepalive:interval"] = record.rdpKeepAliveInterval;
    json["rdp:keepalive:failures"] = record.rdpKeepAliveFailures;
    json["seamless:mode"] = record.seamlessMode;
    json["login:mode"] = record.loginMode;
    json["check:timeouts"] = record.checkTimeouts;
    json["policies:changed"] = record.policiesChanged;

    return compactJson(json) + "\n";
}

std::optional<SessionRecord> parseSessionRecord(std::string_view text) {
    try {
        const auto json = parseJsonStrict(text);
        const RecordReader in{json};
        SessionRecord record;
        record.sid = in.u32("sid");
        record.user = in.string("username");
        record.domain = in.string("domain");
        record.runtimedir = in.string("runtimedir");
        record.display = in.i32("display");
        record.xauthfile = in.string("xauthfile");
        record.xauthInode = in.u64("xauth:inode");
        record.gusId = in.string("gus:id");
        record.uizr = in.string("uizr");
        record.serverId = in.string("server:id");
        record.xsessionName = in.string("xsession:name");
        record.xsessionProg = in.string("xsession:prog");
        const auto& args = in.member("xsession:args");
        if (!args.isArray()) {
            return std::nullopt;
        }
        for (const auto& arg : args) {
            if (!arg.isString()) {
                return std::nullopt;
            }
            record.xsessionArgs.push_back(arg.asString());
        }
        record.dbusAddress = in.string("dbus:address");
        record.durationLimit = in.u32("duration:limit");
        record.inactivityLimit = in.u32("inactivity:limit");
        record.disconnectLimit = in.u32("disconnect:limit");
        record.seamlessLimit = in.u32("seamless:limit");
        record.clipboardLimit = in.u32("clipboard:limit");
        record.manager = in.process("pid2");
        record.startedNs = in.i64("started:timepoint");
        record.onlinedNs = in.i64("onlined:timepoint");
        record.disconnectedNs = in.i64("disconnected:timepoint");
        const auto& transports = in.member("remote:connects");
        if (!transports.isArray() || transports.size() > transportSlots) {
            return std::nullopt;
        }
        for (const auto& slot : transports) {
            const RecordReader inner{slot};
            record.transports.push_back(
                {ProcessIdentity{inner.i32("pid"), inner.u64("start")}, inner.string("remoteaddr")});
        }
        record.systemdSid = in.string("systemd:sid");
        record.systemdSlice = in.string("systemd:slice");
        record.systemdCgroup = in.string("systemd:cgroup");
        record.sessionLimits = in.limits("limits:session");
        record.userLimits = in.limits("limits:user");
        record.secNla = in.boolean("sec:nla");
        record.secTls = in.boolean("sec:tls");
        record.secRdp = in.boolean("sec:rdp");
        record.secAuth = in.boolean("sec:auth");
        record.redirectPolicy = in.u32("redirect:policy");
        record.policyConnect = in.u32("connect:policy");
        record.disconnectedFreeze = in.boolean("disconnected:freeze");
        record.rdpKeepAliveInterval = in.u32("rdp:keepalive:interval");
        record.rdpKeepAliveFailures = in.u32("rdp:keepalive:failures");
        record.seamlessMode = in.boolean("seamless:mode");
        record.loginMode = in.boolean("login:mode");
        record.checkTimeouts = in.boolean("check:timeouts");
        record.policiesChanged = in.boolean("policies:changed");
        if (record.sid == 0 || record.user.empty() || record.manager.pid <= 0) {
            return std::nullopt;
        }
        return record;
    } catch (const std::exception&) {
        // A damaged file (a bad member, or no JSON at all) is no record; the caller says so.
        return std::nullopt;
    }
}

std::shared_ptr<Session> restoreSession(const SessionRecord& record, std::shared_ptr<UserEx> user) {
    auto session = std::make_shared<Session>(record.sid, std::move(user), ServiceDefaults{});
    sameMembers([&](auto inSession, auto inRecord) { (*session).*inSession = record.*inRecord; });
    if (session->user) {
        session->user->domain = record.domain;
        session->user->runtimedir = record.runtimedir;
        session->user->userLimits = record.userLimits;
    }
    session->xauthInode = static_cast<ino_t>(record.xauthInode);
    session->pid2 = record.manager.pid;
    session->pid2Start = record.manager.startTime;
    for (size_t slot = 0; slot < record.transports.size() && slot < transportSlots; ++slot) {
        const auto& transport = record.transports[slot];
        session->transports[slot].adopt(transport.process.pid, transport.process.startTime, {}, transport.remoteaddr);
    }
    session->startedTimepoint = timePoint(record.startedNs);
    session->onlinedTimepoint = timePoint(record.onlinedNs);
    session->disconnectedTimepoint = timePoint(record.disconnectedNs);
    if (uint32_t number = 0;
        !record.systemdSid.empty() &&
        std::from_chars(record.systemdSid.data(), record.systemdSid.data() + record.systemdSid.size(), number).ec ==
            std::errc()) {
        session->systemdSessionNumber = number;
    }
    session->policyConnect = static_cast<ConnectPolicy>(record.policyConnect);
    return session;
}

Adoption adoptionDecision(const SessionRecord& record, const AdoptionFacts& facts) {
    if (!facts.managerStartTime) {
        return Adoption::ManagerEnded;
    }
    if (*facts.managerStartTime != record.manager.startTime) {
        return Adoption::ManagerRecycled;
    }
    return facts.logindKnows ? Adoption::Adopt : Adoption::LogindForgot;
}

const char* adoptionText(Adoption adoption) {
    switch (adoption) {
    case Adoption::Adopt:
        return "adopted";
    case Adoption::ManagerEnded:
        return "session manager ended";
    case Adoption::ManagerRecycled:
        return "session manager pid reused";
    case Adoption::LogindForgot:
        return "logind session gone";
    case Adoption::AccountGone:
        return "account gone";
    }
    return "unknown";
}

bool jobRestartsUnit(std::string_view listJobs, std::string_view unit) {
    std::istringstream lines{std::string(listJobs)};
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string id;
        std::string name;
        std::string type;
        if (words >> id >> name >> type && name == unit && type.ends_with("restart")) {
            return true;
        }
    }
    return false;
}

std::filesystem::path sessionRecordPath(const std::filesystem::path& dir, uint32_t sid) {
    return dir / (std::to_string(sid) + ".json");
}

} // namespace Vexa
