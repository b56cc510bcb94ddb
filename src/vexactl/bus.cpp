#include "vexactl/bus.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <grp.h>
#include <string_view>
#include <unistd.h>

#include <systemd/sd-bus.h>

#include "access/roles.h"
#include "common/utils.h"

namespace Vexa::Ctl {

namespace {

constexpr const char* service = "ru.kelvo.vexa";
constexpr const char* object = "/ru/kelvo/vexa";
// Session starts and notifications are answered from the daemon's workers; a minute covers a full queue.
constexpr uint64_t callTimeoutUsec = 60'000'000;

using Utils::errnoText;

void readFailed(int r) {
    throw CtlError(Exit::Failed, "unexpected reply from the daemon: " + errnoText(-r));
}

// The groups of the role table this caller is a member of, as roles.
Access::Roles callerRoles() {
    gid_t gidOf[std::size(Access::roleGroups)];
    for (size_t i = 0; i < std::size(Access::roleGroups); ++i) {
        const std::string name(Access::roleGroups[i].group);
        group entry{};
        group* found = nullptr;
        std::vector<char> buffer(16384);
        gidOf[i] = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found
                       ? found->gr_gid
                       : static_cast<gid_t>(-1);
    }
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> gids(count > 0 ? static_cast<size_t>(count) : 0);
    if (count > 0 && getgroups(count, gids.data()) < 0) {
        gids.clear();
    }
    gids.push_back(getegid());
    return Access::rolesOfGroups(gids, gidOf);
}

std::string roleGroupsText(Access::Roles roles) {
    std::string text;
    for (const auto& role : Access::roleGroups) {
        if (roles & role.role) {
            text += text.empty() ? "" : " or ";
            text += role.group;
        }
    }
    return text;
}

} // namespace

Reply::~Reply() {
    sd_bus_message_unref(msg);
}

void Reply::read(const char* type, void* value) const {
    if (const int r = sd_bus_message_read_basic(msg, type[0], value); r <= 0) {
        readFailed(r < 0 ? r : -EBADMSG);
    }
}

std::string Reply::string() const {
    const char* text = nullptr;
    read("s", &text);
    return text ? text : "";
}

bool Reply::boolean() const {
    int value = 0; // sd-bus reads a boolean into an int
    read("b", &value);
    return value != 0;
}

uint32_t Reply::u32() const {
    uint32_t value = 0;
    read("u", &value);
    return value;
}

int32_t Reply::i32() const {
    int32_t value = 0;
    read("i", &value);
    return value;
}

uint64_t Reply::u64() const {
    uint64_t value = 0;
    read("t", &value);
    return value;
}

double Reply::real() const {
    double value = 0;
    read("d", &value);
    return value;
}

std::vector<std::string> Reply::strings() const {
    char** list = nullptr;
    if (const int r = sd_bus_message_read_strv(msg, &list); r < 0) {
        readFailed(r);
    }
    std::vector<std::string> result;
    for (char** item = list; item && *item; ++item) {
        result.emplace_back(*item);
        std::free(*item);
    }
    std::free(list);
    return result;
}

std::vector<std::pair<std::string, uint32_t>> Reply::userSessions() const {
    std::vector<std::pair<std::string, uint32_t>> result;
    int r = sd_bus_message_enter_container(msg, 'a', "(su)");
    const char* user = nullptr;
    uint32_t id = 0;
    while (r > 0 && (r = sd_bus_message_read(msg, "(su)", &user, &id)) > 0) {
        result.emplace_back(user, id);
    }
    if (r < 0 || (r = sd_bus_message_exit_container(msg)) < 0) {
        readFailed(r);
    }
    return result;
}

Bus::Bus() {
    if (const int r = sd_bus_open_system(&bus); r < 0) {
        throw CtlError(Exit::NotRunning, "cannot reach the system bus: " + errnoText(-r));
    }
}

Bus::~Bus() {
    sd_bus_flush_close_unref(bus);
}

void Bus::checkRole(const char* method) const {
    if (geteuid() == 0) {
        return;
    }
    const Access::MethodGroup* group = Access::findMethodGroup(method);
    if (!group) {
        throw CtlError(Exit::Failed, std::string("not a method of the interface: ") + method);
    }
    if (Access::decide(*group, callerRoles()) == Access::Decision::Refused) {
        throw CtlError(Exit::AccessDenied,
                       "access denied: " + std::string(group->name) + " (" + method + ") is for " +
                           (group->roles ? "members of " + roleGroupsText(group->roles) : std::string("root")) +
                           ", and you are not one");
    }
}

std::string Bus::metricsText() {
    constexpr const char* method = "metricsText";
    checkRole(method);
    sd_bus_message* request = newCall(std::string(Access::metricsInterface).c_str(), method);
    return send(method, request, 0).string();
}

sd_bus_message* Bus::newCall(const char* iface, const char* method) {
    sd_bus_message* request = nullptr;
    if (const int r = sd_bus_message_new_method_call(bus, &request, service, object, iface, method); r < 0) {
        throw CtlError(Exit::Failed, std::string("cannot make the call ") + method + ": " + errnoText(-r));
    }
    return request;
}

int Bus::appendArgs(sd_bus_message* request, const char* types, ...) {
    va_list args;
    va_start(args, types);
    const int r = *types ? sd_bus_message_appendv(request, types, args) : 0;
    va_end(args);
    return r;
}

Reply Bus::send(const char* method, sd_bus_message* request, int appended) {
    Reply owned(request);
    if (appended < 0) {
        throw CtlError(Exit::Failed, std::string("cannot make the call ") + method + ": " + errnoText(-appended));
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call(bus, request, callTimeoutUsec, &error, &reply);
    if (r >= 0) {
        return Reply(reply);
    }
    const std::string name = error.name ? error.name : "";
    const std::string text = error.message ? error.message : errnoText(-r);
    sd_bus_error_free(&error);
    if (name == SD_BUS_ERROR_ACCESS_DENIED) {
        throw CtlError(Exit::AccessDenied, std::string("access denied by the bus for ") + method + ": " + text);
    }
    if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER || r == -ECONNREFUSED ||
        r == -ENOENT) {
        throw CtlError(Exit::NotRunning, "the vexa service is not running (systemctl start vexa.service)");
    }
    throw CtlError(Exit::Failed, std::string(method) + " failed: " + text);
}

} // namespace Vexa::Ctl
