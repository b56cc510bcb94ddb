#pragma once

// Pieces shared by the fuzz targets.

#include <filesystem>
#include <string>
#include <unistd.h>

namespace FuzzSupport {

// A directory of the fuzzer's own, with an empty "applications" folder; removed when the fuzzer exits.
struct Scratch {
    explicit Scratch(const char* prefix) {
        std::string name = (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
        dir = ::mkdtemp(name.data());
        std::filesystem::create_directory(dir / "applications");
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::filesystem::path dir;
};

} // namespace FuzzSupport
