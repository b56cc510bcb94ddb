// Published programs.

#include "dbus_service.h"

namespace Vexa {

std::vector<std::string> DBusService::vexaProgramList() {
    return notImplemented("vexaProgramList", std::vector<std::string>());
}

std::vector<uint8_t> DBusService::vexaProgramIconPng(const std::string&) {
    return notImplemented("vexaProgramIconPng", std::vector<uint8_t>());
}

} // namespace Vexa
