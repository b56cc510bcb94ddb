#pragma once

// The record files of the live sessions (record.h), kept up to date with the registry: one per session that
// logind knows, rewritten when its record changed, removed by the session's destructor when it ends.
// Thread-safe. The records lock is taken before the sessions lock and never under it: a record is read under
// both, and written (a small file in the run-time directory) under the records lock only, so the writes of two
// threads never put an older record over a newer one.

#include <filesystem>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "record.h"
#include "registry.h"

namespace Vexa {

class RecordStore {
public:
    explicit RecordStore(SessionRegistry& registry) : sessions(registry) {}

    // The directory of the files, made (mode 0700) by the caller; set once, before the first save.
    void setDirectory(const std::filesystem::path& dir) { directory = dir; }
    const std::filesystem::path& dir() const { return directory; }

    // Writes the session's record when it differs from the one written last. A session that logind does not
    // know yet (still starting) has none.
    void save(const SessionRegistry::SessionPtr& session);
    // save() for every session of the registry; what is remembered of sessions that left is dropped.
    void saveAll();

    // The record files found in the directory (a daemon that starts takes them back).
    std::vector<std::filesystem::path> files() const;

private:
    void write(Session& session, const std::string& text);

    SessionRegistry& sessions;
    std::filesystem::path directory;
    std::mutex lock;                                   // the records lock: guards `written`
    std::unordered_map<uint32_t, std::string> written; // by session id: the text of the last write
};

} // namespace Vexa
