#include "utils.h"

#include <algorithm>
#include <charconv>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "logger.h"

namespace Vexa::Utils {

namespace {

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            if (wrote == 0) {
                errno = EIO;
            }
            return false;
        }
        done += static_cast<size_t>(wrote);
    }
    return true;
}

} // namespace

std::string readFileText(const std::filesystem::path& path) {
    std::string text;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(fd);
    return text;
}

bool writeFileAtomically(const std::filesystem::path& path, const std::string& text, mode_t mode, const char* func) {
    std::string temporary = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    const char* failed = nullptr;
    int err = 0;
    const auto fail = [&failed, &err](const char* call) {
        failed = call;
        err = errno;
    };
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        fail("mkostemp");
    } else {
        if (::fchmod(fd, mode) != 0) {
            fail("fchmod");
        } else if (!writeAll(fd, text)) {
            fail("write");
        } else if (::fsync(fd) != 0) {
            fail("fsync");
        }
        if (::close(fd) != 0 && failed == nullptr) {
            fail("close");
        }
        if (failed == nullptr && ::rename(temporary.c_str(), path.c_str()) != 0) {
            fail("rename");
        }
    }
    if (failed != nullptr) {
        Syslog::warning("%s: %s failed, error: %s, code: %d", func, failed, errnoText(err).c_str(), err);
        if (fd >= 0) {
            ::unlink(temporary.c_str());
        }
        return false;
    }
    return true;
}

std::string stringLower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return result;
}

std::string stringUpper(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    return result;
}

std::string stringReplace(std::string_view text, std::string_view pattern, std::string_view value) {
    if (pattern.empty()) {
        return std::string(text);
    }
    std::string result;
    size_t pos = 0;
    for (size_t found; (found = text.find(pattern, pos)) != std::string_view::npos; pos = found + pattern.size()) {
        result.append(text.substr(pos, found - pos)).append(value);
    }
    return result.append(text.substr(pos));
}

std::vector<uint8_t> hexstr2bytes(std::string_view text) {
    std::vector<uint8_t> result;
    result.reserve(text.size() / 2 + 1);
    for (size_t pos = 0; pos < text.size(); pos += 2) {
        const auto piece = text.substr(pos, 2);
        unsigned value = 0;
        const auto [end, err] = std::from_chars(piece.data(), piece.data() + piece.size(), value, 16);
        if (err != std::errc() || end != piece.data() + piece.size()) {
            Syslog::warning("%s: failed, strhex: `%.*s'", "hexstr2bytes", static_cast<int>(text.size()), text.data());
            return {};
        }
        result.push_back(static_cast<uint8_t>(value));
    }
    return result;
}

std::string hexRange(const uint8_t* first, const uint8_t* last, std::string_view separator, bool prefix) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    for (auto it = first; it != last; ++it) {
        if (it != first) {
            result.append(separator);
        }
        if (prefix) {
            result.append("0x");
        }
        result.push_back(digits[*it >> 4]);
        result.push_back(digits[*it & 0x0f]);
    }
    return result;
}

namespace {

// Length of the UTF-8 sequence led by `lead` (0 for a byte that cannot lead one), and the range its second
// byte must lie in: the narrower ranges exclude overlong forms, surrogates and values beyond U+10FFFF.
struct Utf8Lead {
    size_t length;
    uint8_t secondMin;
    uint8_t secondMax;
};

Utf8Lead utf8Lead(uint8_t lead) {
    if (lead >= 0xc2 && lead <= 0xdf) {
        return {2, 0x80, 0xbf};
    }
    if (lead == 0xe0) {
        return {3, 0xa0, 0xbf};
    }
    if (lead == 0xed) {
        return {3, 0x80, 0x9f};
    }
    if (lead >= 0xe1 && lead <= 0xef) {
        return {3, 0x80, 0xbf};
    }
    if (lead == 0xf0) {
        return {4, 0x90, 0xbf};
    }
    if (lead == 0xf4) {
        return {4, 0x80, 0x8f};
    }
    if (lead >= 0xf1 && lead <= 0xf3) {
        return {4, 0x80, 0xbf};
    }
    return {0, 0, 0};
}

} // namespace

std::u16string string2unicode(std::string_view text) {
    constexpr char16_t replacement = 0xfffd;
    std::u16string result;
    result.reserve(text.size());
    size_t pos = 0;
    while (pos < text.size()) {
        const auto lead = static_cast<uint8_t>(text[pos]);
        if (lead < 0x80) {
            result.push_back(lead);
            ++pos;
            continue;
        }
        const auto [length, secondMin, secondMax] = utf8Lead(lead);
        char32_t code = length == 2 ? lead & 0x1f : length == 3 ? lead & 0x0f : lead & 0x07;
        size_t taken = 1;
        for (; taken < length && pos + taken < text.size(); ++taken) {
            const auto next = static_cast<uint8_t>(text[pos + taken]);
            const bool fits = taken == 1 ? next >= secondMin && next <= secondMax : (next & 0xc0) == 0x80;
            if (!fits) {
                break;
            }
            code = (code << 6) | (next & 0x3f);
        }
        pos += taken;
        if (length == 0 || taken < length) {
            result.push_back(replacement);
        } else if (code >= 0x10000) {
            code -= 0x10000;
            result.push_back(static_cast<char16_t>(0xd800 + (code >> 10)));
            result.push_back(static_cast<char16_t>(0xdc00 + (code & 0x3ff)));
        } else {
            result.push_back(static_cast<char16_t>(code));
        }
    }
    return result;
}

std::string errnoText(int err) {
    char buf[256];
    // GNU strerror_r: returns either buf or a static text.
    return strerror_r(err, buf, sizeof(buf));
}

} // namespace Vexa::Utils

namespace Vexa {

namespace {
constexpr int versionMajor = 2;
constexpr int versionMinor = 1;
constexpr int versionPatch = 5;
constexpr std::string_view buildStamp = "202507220750";
} // namespace

std::string productVersion(std::string_view component) {
    std::string result("VEXA ");
    result.append(component)
        .append(" v.")
        .append(std::to_string(versionMajor))
        .append(".")
        .append(std::to_string(versionMinor))
        .append(".")
        .append(std::to_string(versionPatch))
        .append(" build(")
        .append(buildStamp)
        .append(")");
    return result;
}

} // namespace Vexa
