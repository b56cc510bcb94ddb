// Hostile programs files ("/etc/vexa/programs.json"): the strict reader, the conversion of each element and a
// whole reload of the program list must never crash, leak or read out of bounds. A reload publishes only
// programs with a name and an absolute path that exists, each found again under its name.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>

#include <json/value.h>

#include "common/json_config.h"
#include "fuzz_support.h"
#include "common/logger.h"
#include "programs/program_list.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Silent);
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const auto json = Vexa::parseJsonStrict(text);
    Json::ArrayIndex converted = 0;
    if (json.isArray()) {
        for (const auto& element : json) {
            if (const auto program = Vexa::programFromJson(element)) {
                constexpr std::string_view key = "args";
                const auto* args = element.find(key.data(), key.data() + key.size());
                if (args && args->size() != program->args.size()) {
                    __builtin_trap();
                }
                ++converted;
            }
        }
    }

    static const FuzzSupport::Scratch scratch("vexa-programs-fuzz");
    const auto file = scratch.dir / "programs.json";
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    Vexa::ProgramList list;
    list.reload(file, {}, scratch.dir / "applications");
    const auto names = list.getNames();
    if (names.size() > converted) {
        __builtin_trap();
    }
    for (const auto& name : names) {
        const auto program = list.find(name);
        std::error_code ec;
        if (name.empty() || !program || program->name != name || !program->path.is_absolute() ||
            !fs::exists(program->path, ec)) {
            __builtin_trap();
        }
    }
    return 0;
}
