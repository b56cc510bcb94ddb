#pragma once

// Helpers shared by the unit tests.

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <pwd.h>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "session/user_info.h"

namespace TestSupport {

// Everything `call` logs, through the console sink.
inline std::string logged(const std::function<void()>& call) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

// A user record with only a name.
inline std::shared_ptr<Vexa::UserEx> namedUser(const char* name) {
    passwd entry{};
    entry.pw_name = const_cast<char*>(name);
    return std::make_shared<Vexa::UserEx>(entry, false);
}

inline bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

// A private temporary directory, removed with its content.
struct TempDir {
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "vexa-test-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::filesystem::path path;
};

} // namespace TestSupport
