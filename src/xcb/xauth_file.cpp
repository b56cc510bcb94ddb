#include "xauth_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "common/logger.h"

namespace Vexa::Utils {

namespace {

// Four length-prefixed fields after the family: nothing past this can belong to the first entry.
constexpr size_t maxEntrySize = 2 + 4 * (2 + 0xffff);

} // namespace

std::optional<std::vector<uint8_t>> xauthCookie(std::span<const uint8_t> data) {
    auto skip = [&data](size_t count) {
        if (data.size() < count) {
            return false;
        }
        data = data.subspan(count);
        return true;
    };
    auto length = [&data, &skip]() -> std::optional<size_t> {
        if (data.size() < 2) {
            return std::nullopt;
        }
        const size_t value = static_cast<size_t>(data[0]) << 8 | data[1];
        skip(2);
        return value;
    };
    if (!skip(2)) {
        return std::nullopt;
    }
    for (int field = 0; field < 3; ++field) {
        const auto size = length();
        if (!size || !skip(*size)) {
            return std::nullopt;
        }
    }
    const auto size = length();
    if (!size || data.size() < *size) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(*size));
}

std::vector<uint8_t> readXauthfile(const std::filesystem::path& path) {
    std::vector<uint8_t> data;
    // O_NONBLOCK: a FIFO at the path must not hang the caller.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd >= 0) {
        data.resize(maxEntrySize);
        size_t filled = 0;
        while (filled < data.size()) {
            const ssize_t got = ::read(fd, data.data() + filled, data.size() - filled);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            filled += static_cast<size_t>(got);
        }
        data.resize(filled);
        ::close(fd);
    }
    auto cookie = fd >= 0 ? xauthCookie(data) : std::nullopt;
    if (!cookie) {
        Syslog::error("%s: read xauthfile failed, path: %s", "readXauthfile", path.c_str());
        return {};
    }
    return std::move(*cookie);
}

} // namespace Vexa::Utils
