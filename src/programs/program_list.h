#pragma once

// The programs a remote client may start as a single-program session: the applications of the desktop entries
// followed by the extra programs of a JSON file.
//
// ProgramList is thread-safe: the watcher thread and the D-Bus thread both reload it and read it. A reload
// builds a new list without holding the list lock and swaps it in whole; readers copy what they need under
// the lock and never see a half-built list.

#include <cstdint>
#include <filesystem>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Json {
class Value;
}

namespace Vexa {

inline constexpr const char* applicationsDir = "/usr/share/applications";
inline constexpr const char* programIconsDir = "/usr/share/icons/hicolor/32x32/apps";
inline constexpr const char* terminalProgram = "/usr/bin/xterm";

struct Program {
    std::string name;            // published name; the key of lookups
    std::filesystem::path path;  // absolute path of the executable
    std::list<std::string> args; // passed before any arguments of the request

    bool operator==(const Program&) const = default;
};

// One element of the programs file: an object with "name" and "path" (strings) and "args" (array of strings);
// a missing key gives an empty value. None when the element is not such an object (a key of another type).
std::optional<Program> programFromJson(const Json::Value& element);

// The 32x32 icon of a program: the file name of its path with the extension "png", in `iconsDir`.
std::filesystem::path programIconPath(const Program& program, const std::filesystem::path& iconsDir = programIconsDir);

// The whole content of a file, read with the size the file system reports; none when it cannot be opened or
// the read comes short.
std::optional<std::vector<uint8_t>> readFileBytes(const std::filesystem::path& path);

class ProgramList {
public:
    // Rebuilds the list. From the desktop entries of `applications` (one level, in file-name order; entries
    // named in `skipList` left out), each application that is not hidden and whose program is found: an
    // absolute path as written, or a bare name under "/usr/bin/" (never resolved against the daemon's working
    // directory). Its published name is the localized name when the entry has one, else "Name": the list is
    // shown to the people who pick a program, and the client sends the same text back to start it. Terminal
    // applications run as "/usr/bin/xterm -e <program> <args...>". Then the programs of `programsFile` whose
    // path exists, in file order. Entries without a usable name (empty, or not valid UTF-8, which cannot
    // travel over the bus) are left out. Never fails as a whole; every left-out entry is logged.
    void reload(const std::filesystem::path& programsFile, const std::list<std::string>& skipList,
                const std::filesystem::path& applications = applicationsDir);

    // The first program with this name.
    std::optional<Program> find(std::string_view name) const;
    // The names in list order.
    std::vector<std::string> getNames() const;

private:
    std::mutex reloadLock;   // serializes whole reloads, so that the last one to start is the last to swap
    mutable std::mutex lock; // guards `programs`; held only to swap or copy, never across file access
    std::vector<Program> programs;
};

} // namespace Vexa
