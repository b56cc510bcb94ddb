#include "program_list.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/value.h>

#include "common/json_config.h"
#include "common/logger.h"
#include "common/utils.h"
#include "desktop_file.h"

namespace Vexa {

namespace fs = std::filesystem;

namespace {

constexpr const char* reloadName = "ProgramListReload";

// Only an absolute path counts: nothing is resolved against the daemon's working directory, and a directory
// is no program.
bool isProgramFile(const fs::path& path) {
    std::error_code ec;
    return path.is_absolute() && fs::exists(path, ec) && !fs::is_directory(path, ec);
}

bool isUtf8(std::string_view text) {
    size_t pos = 0;
    while (pos < text.size()) {
        const auto lead = static_cast<unsigned char>(text[pos]);
        size_t extra = 0;
        uint32_t code = 0;
        if (lead < 0x80) {
            ++pos;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            extra = 1;
            code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            extra = 2;
            code = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            extra = 3;
            code = lead & 0x07;
        } else {
            return false;
        }
        if (pos + extra >= text.size()) {
            return false;
        }
        for (size_t n = 1; n <= extra; ++n) {
            const auto next = static_cast<unsigned char>(text[pos + n]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values beyond the Unicode range.
        if ((extra == 2 && code < 0x800) || (extra == 3 && (code < 0x10000 || code > 0x10FFFF)) ||
            (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        pos += extra + 1;
    }
    return true;
}

bool usableName(const std::string& name, const std::string& source) {
    if (!name.empty() && isUtf8(name)) {
        return true;
    }
    Syslog::warning("%s: invalid name, skipped app: `%s'", reloadName, source.c_str());
    return false;
}

std::optional<Program> programFromDesktop(const fs::path& file) {
    const auto entry = DesktopFile::parse(file);
    if (!entry.isApplication || entry.hidden) {
        return std::nullopt;
    }

    auto exec = ExecLine::split(entry.exec);
    fs::path path = exec.program;
    if (!isProgramFile(path)) {
        path = fs::path("/usr/bin") / exec.program;
        if (exec.program.empty() || !isProgramFile(path)) {
            Syslog::warning("%s: exec not found: `%s', skipped app: `%s'", reloadName, exec.program.c_str(),
                            file.c_str());
            return std::nullopt;
        }
    }

    Program program;
    program.name = entry.localizedName.empty() ? entry.name : entry.localizedName;
    if (!usableName(program.name, file.string())) {
        return std::nullopt;
    }
    if (entry.terminal) {
        program.path = terminalProgram;
        program.args = {"-e", path.string()};
        program.args.splice(program.args.end(), exec.args);
    } else {
        program.path = std::move(path);
        program.args = std::move(exec.args);
    }
    return program;
}

void appendDesktopPrograms(std::vector<Program>& list, const fs::path& applications,
                           const std::list<std::string>& skipList) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (fs::directory_iterator it(applications, ec), end; !ec && it != end; it.increment(ec)) {
        const auto& file = it->path();
        if (file.extension() != ".desktop") {
            continue;
        }
        if (std::find(skipList.begin(), skipList.end(), file.filename().string()) != skipList.end()) {
            continue;
        }
        files.push_back(file);
    }
    if (ec && ec != std::errc::no_such_file_or_directory) {
        Syslog::warning("%s: %s failed, error: %s, code: %d", reloadName, "readdir", ec.message().c_str(), ec.value());
    }
    // Directory order differs between file systems; the published order should not.
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        if (auto program = programFromDesktop(file)) {
            list.push_back(std::move(*program));
        }
    }
}

void appendFilePrograms(std::vector<Program>& list, const fs::path& programsFile) {
    std::error_code ec;
    if (!fs::exists(programsFile, ec)) {
        Syslog::error("%s: path not found: %s", reloadName, programsFile.c_str());
        return;
    }
    const auto json = readJson(programsFile);
    if (!json.isArray()) {
        Syslog::error("%s: not json array: %s", reloadName, programsFile.c_str());
        return;
    }
    for (Json::ArrayIndex index = 0; index < json.size(); ++index) {
        auto program = programFromJson(json[index]);
        if (!program) {
            Syslog::warning("%s: invalid program, index: %u, file: %s", reloadName, index, programsFile.c_str());
            continue;
        }
        if (!isProgramFile(program->path)) {
            Syslog::warning("%s: binary not found: %s for name: %s", reloadName, program->path.c_str(),
                            program->name.c_str());
            continue;
        }
        if (usableName(program->name, programsFile.string())) {
            list.push_back(std::move(*program));
        }
    }
}

} // namespace

std::optional<Program> programFromJson(const Json::Value& element) {
    if (!element.isObject()) {
        return std::nullopt;
    }
    const auto member = [&element](std::string_view key) { return element.find(key.data(), key.data() + key.size()); };
    const auto text = [&member](std::string_view key, std::string& out) {
        const auto* value = member(key);
        if (value != nullptr && !value->isString()) {
            return false;
        }
        if (value != nullptr) {
            out = value->asString();
        }
        return true;
    };

    Program program;
    std::string path;
    if (!text("name", program.name) || !text("path", path)) {
        return std::nullopt;
    }
    program.path = path;
    if (const auto* args = member("args")) {
        if (!args->isArray()) {
            return std::nullopt;
        }
        for (const auto& arg : *args) {
            if (!arg.isString()) {
                return std::nullopt;
            }
            program.args.push_back(arg.asString());
        }
    }
    return program;
}

fs::path programIconPath(const Program& program, const fs::path& iconsDir) {
    return iconsDir / program.path.filename().replace_extension("png");
}

std::optional<std::vector<uint8_t>> readFileBytes(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat st {};
    std::optional<std::vector<uint8_t>> result;
    if (::fstat(fd, &st) == 0 && st.st_size >= 0) {
        std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t got = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        if (done == bytes.size()) {
            result = std::move(bytes);
        }
    }
    ::close(fd);
    return result;
}

void ProgramList::reload(const fs::path& programsFile, const std::list<std::string>& skipList,
                         const fs::path& applications) {
    std::lock_guard serial(reloadLock);
    std::vector<Program> next;
    appendDesktopPrograms(next, applications, skipList);
    appendFilePrograms(next, programsFile);

    std::lock_guard guard(lock);
    programs.swap(next);
    // The old list goes with `next`, after the lock is released.
}

std::optional<Program> ProgramList::find(std::string_view name) const {
    std::lock_guard guard(lock);
    const auto found =
        std::find_if(programs.begin(), programs.end(), [name](const Program& program) { return program.name == name; });
    if (found == programs.end()) {
        return std::nullopt;
    }
    return *found;
}

std::vector<std::string> ProgramList::getNames() const {
    std::lock_guard guard(lock);
    std::vector<std::string> names;
    names.reserve(programs.size());
    for (const auto& program : programs) {
        names.push_back(program.name);
    }
    return names;
}

} // namespace Vexa
