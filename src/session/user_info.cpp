#include "user_info.h"

namespace Vexa {

namespace {

std::string text(const char* value) {
    return value ? std::string(value) : std::string();
}

std::vector<gid_t> supplementaryGroups(const char* name, gid_t primary) {
    if (!name) {
        return {};
    }
    int count = 16;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    // getgrouplist reports the size it needs when the buffer is too small.
    while (getgrouplist(name, primary, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

} // namespace

UserInfo::UserInfo(const passwd& entry, bool withGroups)
    : groups(withGroups ? supplementaryGroups(entry.pw_name, entry.pw_gid) : std::vector<gid_t>{}),
      name(text(entry.pw_name)), home(text(entry.pw_dir)), shell(text(entry.pw_shell)), gecos(text(entry.pw_gecos)),
      uid(static_cast<int32_t>(entry.pw_uid)), gid(static_cast<int32_t>(entry.pw_gid)) {}

} // namespace Vexa
