#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

// A file in a private temporary directory, removed with the object.
class TempFile {
public:
    explicit TempFile(const std::string& content, const std::string& name = "file.json") {
        std::string pattern = (std::filesystem::temp_directory_path() / "vexa-test-XXXXXX").string();
        dir = mkdtemp(pattern.data());
        path = dir / name;
        std::ofstream(path, std::ios::binary) << content;
    }
    ~TempFile() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    std::filesystem::path dir;
    std::filesystem::path path;
};
