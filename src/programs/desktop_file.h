#pragma once

// Desktop entries (the ".desktop" files of the applications directory) as far as the published program list
// needs them, and the split of their Exec line. Plain values and stateless functions; safe from any thread.

#include <filesystem>
#include <list>
#include <string>
#include <string_view>

namespace Vexa {

struct DesktopFile {
    std::string name;                 // "Name="
    std::string localizedName;        // "Name[ru]=", else the first "Name[ru_RU]="
    std::string genericName;          // "GenericName="
    std::string localizedGenericName; // "GenericName[ru]="
    std::string exec;                 // "Exec=", the whole rest of the line
    bool isApplication = false;       // "Type=application", exactly
    bool terminal = false;            // "Terminal=true"
    bool hidden = false;              // "Hidden=true"

    // Only lines inside the section opened by a line that is exactly "[Desktop Entry]" count; any other line
    // beginning with '[' closes it. Keys are exact, case-sensitive prefixes; a later line of the same key
    // overwrites an earlier one, except that a "Name[ru_RU]=" never replaces a localized name already set.
    // The type is compared exactly: only "Type=application" entries are published, not the freedesktop
    // standard's "Type=Application". The desktop entries every installed package brings are thus never
    // offered to remote clients by themselves; an administrator publishes a program on purpose, through
    // /etc/vexa/programs.json or an entry written for it.
    // A file that cannot be read gives an entry that is no application (logged).
    static DesktopFile parse(const std::filesystem::path& path);
    static DesktopFile parseText(std::string_view text);
};

// An Exec line taken apart: the program is everything before the first blank, as written (the caller
// resolves it). The rest is split into arguments the way desktop entries quote them: the string escapes
// "\s", "\n", "\t", "\r" and "\\" first, then blanks separate arguments except inside double quotes, where
// a backslash makes the next '"', '`', '$' or '\' literal. Field codes ("%f", "%U", "%i"...) ask the
// launcher for files, URLs or icon names that a remote start never has, so an argument holding one is left
// out; "%%" is a literal '%'.
struct ExecLine {
    std::string program;
    std::list<std::string> args;

    static ExecLine split(std::string_view exec);
};

} // namespace Vexa
