// Published programs: the list offered to remote clients and the icons of its programs.

#include <cerrno>
#include <sys/stat.h>

#include "common/utils.h"
#include "dbus_service.h"

namespace Vexa {

DBusService::ProgramSources DBusService::programSources(const JsonConfig& config) {
    return ProgramSources{config.getString("session:programs", "/etc/vexa/programs.json"),
                          config.getStringList("applications:skip")};
}

void DBusService::reloadProgramsWatcher() {
    // The configuration in force has passed programSources() before it was taken, so reading it cannot throw.
    const auto sources = programSources(*configuration());
    struct stat st {};
    if (stat(sources.programsFile.c_str(), &st) != 0) {
        const int err = errno;
        warning("%s: %s failed, error: %s, code: %d", "reloadProgramsWatcher", "stat", Utils::errnoText(err).c_str(),
                err);
        return;
    }

    const int64_t modified = st.st_mtim.tv_sec;
    const int64_t previous = programsModified.exchange(modified);
    if (previous == modified || previous == 0) {
        return;
    }
    reloadPrograms(sources);
    notice("%s: %s", "reloadProgramsWatcher", "success");
}

std::vector<std::string> DBusService::vexaProgramList() {
    return serve("vexaProgramList", std::vector<std::string>(), [this] {
        reloadPrograms(programSources(*configuration()));
        return programs.getNames();
    });
}

std::vector<uint8_t> DBusService::vexaProgramIconPng(const std::string& name) {
    return serve("vexaProgramIconPng", std::vector<uint8_t>(), [this, &name] {
        debug("%s: program name: `%s'", "vexaProgramIconPng", name.c_str());
        const auto program = programs.find(name);
        if (!program) {
            error("%s: program not registered, name: `%s'", "vexaProgramIconPng", name.c_str());
            return std::vector<uint8_t>();
        }
        const auto icon = programIconPath(*program);
        std::error_code ec;
        if (!std::filesystem::exists(icon, ec)) {
            error("%s: file not found: %s", "vexaProgramIconPng", icon.c_str());
            return std::vector<uint8_t>();
        }
        auto bytes = readFileBytes(icon);
        if (!bytes) {
            error("%s: read failed, file: `%s'", "vexaProgramIconPng", icon.c_str());
            return std::vector<uint8_t>();
        }
        return std::move(*bytes);
    });
}

} // namespace Vexa
