#pragma once

// The user's profile mount point, released when the user's last session ends.

#include <filesystem>
#include <sys/types.h>
#include <vector>

namespace Vexa {

// Processes of `uid` that hold something under `path`: an open file, the working directory or the root.
std::vector<pid_t> profileLockedPIDs(const std::filesystem::path& path, uid_t uid);

// Unmounts a profile that was busy at the first attempt, on a detached thread: waits for the user's processes
// to let go of it (8 checks, 550 ms apart), ends those still holding it, then unmounts.
void startProfileCloseJob(const std::filesystem::path& path, uid_t uid);

} // namespace Vexa
