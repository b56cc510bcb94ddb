// Hostile desktop entries and programs files (/etc/vexa/programs.json): the entry parser, the Exec line split, the JSON
// conversion and a whole reload of the program list must never crash, leak or read out of bounds. The same input is
// read both as a desktop entry and as a programs file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>

#include "common/json_config.h"
#include "fuzz_support.h"
#include "common/logger.h"
#include "programs/desktop_file.h"
#include "programs/program_list.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Silent);
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const auto entry = Vexa::DesktopFile::parseText(text);
    (void)Vexa::ExecLine::split(entry.exec);
    (void)Vexa::ExecLine::split(text);

    const auto json = Vexa::parseJsonStrict(text);
    (void)Vexa::programFromJson(json);
    if (json.isArray()) {
        for (const auto& element : json) {
            if (const auto program = Vexa::programFromJson(element)) {
                (void)Vexa::programIconPath(*program);
            }
        }
    }

    static const FuzzSupport::Scratch scratch("vexa-desktop-fuzz");
    const auto applications = scratch.dir / "applications";
    const auto programsFile = scratch.dir / "programs.json";
    std::ofstream(applications / "fuzz.desktop", std::ios::binary | std::ios::trunc) << text;
    std::ofstream(programsFile, std::ios::binary | std::ios::trunc) << text;
    Vexa::ProgramList list;
    list.reload(programsFile, {}, applications);
    for (const auto& name : list.getNames()) {
        (void)list.find(name);
    }
    return 0;
}
