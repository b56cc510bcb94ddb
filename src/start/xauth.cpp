#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <numeric>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "common/accounts.h"
#include "common/logger.h"
#include "common/utils.h"
#include "xserver.h"

namespace Vexa {

namespace {

constexpr uint16_t familyLocal = 256;
constexpr std::string_view authName = "MIT-MAGIC-COOKIE-1";
constexpr size_t cookieSize = 32;

void putField(std::vector<uint8_t>& out, std::span<const uint8_t> field) {
    if (field.size() > 0xffff) {
        throw std::length_error("xauthEntry");
    }
    out.push_back(static_cast<uint8_t>(field.size() >> 8));
    out.push_back(static_cast<uint8_t>(field.size() & 0xff));
    out.insert(out.end(), field.begin(), field.end());
}

std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Restores the umask it replaced, also when the creation throws.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : saved(::umask(mask)) {}
    ~UmaskGuard() { ::umask(saved); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t saved;
};

// A temporary file beside the target: removed on destruction unless it was renamed into place.
class TempFile {
public:
    explicit TempFile(const std::filesystem::path& target) : name(target.string() + ".XXXXXX") {
        // The umask is process-wide and matters only when the file comes into being: other threads see 077
        // for the length of this one call.
        const UmaskGuard mask(077);
        fd = ::mkostemp(name.data(), O_CLOEXEC);
    }
    ~TempFile() {
        if (fd >= 0) {
            ::close(fd);
        }
        if (!renamed) {
            ::unlink(name.c_str());
        }
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    bool opened() const { return fd >= 0; }

    bool writeAll(std::span<const uint8_t> data) {
        while (!data.empty()) {
            const ssize_t done = ::write(fd, data.data(), data.size());
            if (done < 0 && errno == EINTR) {
                continue;
            }
            if (done <= 0) {
                return false;
            }
            data = data.subspan(static_cast<size_t>(done));
        }
        return true;
    }

    bool close() {
        const int rc = ::close(fd);
        fd = -1;
        return rc == 0;
    }

    bool renameTo(const std::filesystem::path& target) {
        renamed = ::rename(name.c_str(), target.c_str()) == 0;
        return renamed;
    }

    std::string name;
    int fd = -1;

private:
    bool renamed = false;
};

[[noreturn]] void createFailed(const std::filesystem::path& path, const char* call, int err) {
    Syslog::error("%s: %s failed, error: %s, code: %d", "createXauthFile", call, Utils::errnoText(err).c_str(), err);
    Syslog::error("%s: create xauthfile failed, path: %s", "createXauthFile", path.c_str());
    throw std::runtime_error("createXauthFile");
}

} // namespace

uint32_t chooseDisplay(uint32_t base, std::vector<int32_t> used) {
    std::erase_if(used, [](int32_t display) { return display < 0; });
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
    if (used.empty() || static_cast<uint32_t>(used.front()) != base) {
        return base;
    }
    uint32_t last = base;
    for (auto it = used.begin() + 1; it != used.end() && static_cast<uint32_t>(*it) == last + 1; ++it) {
        last = static_cast<uint32_t>(*it);
    }
    return last + 1;
}

std::filesystem::path xauthFilePath(const std::filesystem::path& runtimeDir, uint32_t display) {
    return runtimeDir / ("xauth_" + std::to_string(display));
}

std::vector<uint8_t> xauthEntry(std::string_view host, uint32_t display, const std::vector<uint8_t>& cookie) {
    std::vector<uint8_t> out{static_cast<uint8_t>(familyLocal >> 8), static_cast<uint8_t>(familyLocal & 0xff)};
    putField(out, bytesOf(host));
    putField(out, bytesOf(std::to_string(display)));
    putField(out, bytesOf(authName));
    putField(out, cookie);
    return out;
}

std::filesystem::path createXauthFile(const std::filesystem::path& runtimeDir, uint32_t display, std::string_view user,
                                      std::string_view group) {
    const std::string userName(user);
    Syslog::info("%s: display: %u, user: %s", "createXauthFile", display, userName.c_str());

    auto path = xauthFilePath(runtimeDir, display);
    const auto entry = xauthEntry(Utils::getHostname(), display, Utils::randomBytes(cookieSize));

    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        createFailed(path, "unlink", errno);
    }
    TempFile file(path);
    if (!file.opened()) {
        createFailed(path, "mkostemp", errno);
    }
    if (!file.writeAll(entry)) {
        createFailed(path, "write", errno);
    }
    if (::fchmod(file.fd, 0440) != 0) {
        createFailed(path, "fchmod", errno);
    }
    if (!file.close()) {
        createFailed(path, "close", errno);
    }
    // Ownership is given before the rename: the final name only ever shows the finished file.
    Utils::setOwner(file.name, user, group);
    if (!file.renameTo(path)) {
        createFailed(path, "rename", errno);
    }
    return path;
}

namespace Utils {

std::vector<uint8_t> randomBytes(size_t count) {
    std::random_device device("default");
    std::array<std::random_device::result_type, 8> seed{};
    std::generate(seed.begin(), seed.end(), std::ref(device));
    std::seed_seq sequence(seed.begin(), seed.end());
    std::mt19937 generator(sequence);

    std::vector<uint8_t> out;
    out.reserve(count);
    std::array<uint8_t, 256> block{};
    while (out.size() < count) {
        std::iota(block.begin(), block.end(), uint8_t{0});
        std::shuffle(block.begin(), block.end(), generator);
        const size_t take = std::min(block.size(), count - out.size());
        out.insert(out.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(take));
    }
    return out;
}

std::string getHostname() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "getHostname", "gethostname", errnoText(err).c_str(), err);
        return {};
    }
    return name.data();
}

bool setOwner(const std::filesystem::path& path, std::string_view user, std::string_view group) {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    if (const auto info = getUserInfo(user, false)) {
        uid = static_cast<uid_t>(info->uid);
    }
    if (const auto info = getGroupInfo(group, false)) {
        gid = info->gid;
    }
    if (::chown(path.c_str(), uid, gid) != 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "setOwner", "chown", errnoText(err).c_str(), err);
        return false;
    }
    return true;
}

} // namespace Utils
} // namespace Vexa
