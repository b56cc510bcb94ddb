// Hostile session requests: the JSON text a transport sends with vexaSessionRequest must never crash, throw,
// leak or read out of bounds, and every answer must be either a request to start or a refusal, never both.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "common/logger.h"
#include "start/session_request.h"

using namespace Vexa;

namespace {

const Program editor{"Editor", "/usr/bin/ed", {"-p", "*"}};
const Program calc{"Calc", "/usr/bin/bc", {}};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    bool lastFound = true;
    const auto findProgram = [&lastFound](std::string_view name) -> std::optional<Program> {
        const auto found = name == editor.name ? std::optional(editor)
                           : name == calc.name ? std::optional(calc)
                                               : std::nullopt;
        lastFound = found.has_value();
        return found;
    };

    const auto parsed = parseSessionRequest(std::string_view(reinterpret_cast<const char*>(data), size), findProgram);
    if (!parsed.request) {
        // Only the parameter refusal, and the unknown program once a look-up failed.
        if (parsed.reply != -4 && !(parsed.reply == -9 && !lastFound)) {
            __builtin_trap();
        }
        return 0;
    }
    const auto& request = *parsed.request;
    if (parsed.reply != 0 || !request.credentials.ok()) {
        __builtin_trap();
    }
    // A published program brings its own command; a failed or absent decoding hands out no password.
    if (request.mode == RunMode::UserSession) {
        const auto& program = request.sessionPath == editor.path ? editor : calc;
        if (request.sessionPath != program.path || request.sessionArgs != program.args) {
            __builtin_trap();
        }
    } else if (request.mode != RunMode::UserSessionRequest) {
        __builtin_trap();
    }
    if (!request.credentials.password.empty() && request.credentials.mode != AuthMode::Password &&
        request.credentials.mode != AuthMode::PasswordEnc) {
        __builtin_trap();
    }
    return 0;
}
