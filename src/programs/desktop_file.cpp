#include "desktop_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "common/logger.h"
#include "common/utils.h"

namespace Vexa {

namespace {

bool startsWith(std::string_view line, std::string_view prefix, std::string_view& value) {
    if (line.substr(0, prefix.size()) != prefix) {
        return false;
    }
    value = line.substr(prefix.size());
    return true;
}

bool readText(const std::filesystem::path& path, std::string& text, int& err) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        err = errno;
        return false;
    }
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::read(fd, buffer, sizeof(buffer))) != 0) {
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            err = errno;
            ::close(fd);
            return false;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(fd);
    return true;
}

// The string escapes of a desktop-entry value.
std::string unescapeValue(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (size_t pos = 0; pos < value.size(); ++pos) {
        if (value[pos] != '\\' || pos + 1 == value.size()) {
            out += value[pos];
            continue;
        }
        switch (const char next = value[++pos]) {
        case 's':
            out += ' ';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        case '\\':
            out += '\\';
            break;
        default:
            // Not a string escape: the backslash stays for the quoting rules of the Exec line.
            out += '\\';
            out += next;
        }
    }
    return out;
}

// "%%" becomes '%'; any other '%' is a field code, and the argument is left out.
bool dropFieldCodes(std::string& arg) {
    std::string out;
    for (size_t pos = 0; pos < arg.size(); ++pos) {
        if (arg[pos] != '%') {
            out += arg[pos];
        } else if (pos + 1 < arg.size() && arg[pos + 1] == '%') {
            out += '%';
            ++pos;
        } else {
            return false;
        }
    }
    arg = std::move(out);
    return true;
}

} // namespace

DesktopFile DesktopFile::parse(const std::filesystem::path& path) {
    std::string text;
    int err = 0;
    if (!readText(path, text, err)) {
        Syslog::warning("%s: %s failed, error: %s, code: %d", "DesktopFile::parse", "open",
                        Utils::errnoText(err).c_str(), err);
        return DesktopFile();
    }
    return parseText(text);
}

DesktopFile DesktopFile::parseText(std::string_view text) {
    DesktopFile entry;
    bool inSection = false;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

        if (line == "[Desktop Entry]") {
            inSection = true;
            continue;
        }
        if (line.starts_with('[')) {
            inSection = false;
            continue;
        }
        if (!inSection) {
            continue;
        }

        std::string_view value;
        if (startsWith(line, "Type=", value)) {
            entry.isApplication = value == "application";
        } else if (startsWith(line, "Terminal=", value)) {
            entry.terminal = value == "true";
        } else if (startsWith(line, "Hidden=", value)) {
            entry.hidden = value == "true";
        } else if (startsWith(line, "Name=", value)) {
            entry.name = value;
        } else if (startsWith(line, "Name[ru]=", value)) {
            entry.localizedName = value;
        } else if (startsWith(line, "Name[ru_RU]=", value)) {
            if (entry.localizedName.empty()) {
                entry.localizedName = value;
            }
        } else if (startsWith(line, "GenericName=", value)) {
            entry.genericName = value;
        } else if (startsWith(line, "GenericName[ru]=", value)) {
            entry.localizedGenericName = value;
        } else if (startsWith(line, "Exec=", value)) {
            entry.exec = value;
        }
    }
    return entry;
}

ExecLine ExecLine::split(std::string_view exec) {
    ExecLine result;
    const auto blank = exec.find(' ');
    result.program = exec.substr(0, blank);
    if (blank == std::string_view::npos) {
        return result;
    }

    const std::string rest = unescapeValue(exec.substr(blank + 1));
    std::string arg;
    bool inArg = false;
    bool quoted = false;
    const auto finish = [&] {
        if (inArg && dropFieldCodes(arg)) {
            result.args.push_back(std::move(arg));
        }
        arg.clear();
        inArg = false;
    };
    for (size_t pos = 0; pos < rest.size(); ++pos) {
        const char ch = rest[pos];
        if (quoted) {
            if (ch == '"') {
                quoted = false;
            } else if (ch == '\\' && pos + 1 < rest.size() &&
                       std::string_view("\"`$\\").find(rest[pos + 1]) != std::string_view::npos) {
                arg += rest[++pos];
            } else {
                arg += ch;
            }
        } else if (ch == ' ' || ch == '\t') {
            finish();
        } else if (ch == '"') {
            quoted = true;
            inArg = true;
        } else {
            arg += ch;
            inArg = true;
        }
    }
    // An unterminated quote ends with the line.
    finish();
    return result;
}

} // namespace Vexa
