#include "record_store.h"

#include <algorithm>
#include <optional>

#include "common/utils.h"

namespace Vexa {

namespace {

// The record, under the sessions lock; nullopt for a session with nothing to record yet.
std::optional<std::string> recordText(const Session& session) {
    if (session.pid2 <= 0 || session.systemdSid.empty() || session.kept) {
        return std::nullopt;
    }
    return sessionRecordText(sessionRecordOf(session));
}

} // namespace

void RecordStore::save(const SessionRegistry::SessionPtr& session) {
    if (!session || directory.empty()) {
        return;
    }
    std::lock_guard guard(lock);
    const auto text = sessions.locked([&](SessionRegistry::Map&) { return recordText(*session); });
    if (text) {
        write(*session, *text);
    }
}

void RecordStore::saveAll() {
    if (directory.empty()) {
        return;
    }
    std::lock_guard guard(lock);
    std::vector<std::pair<SessionRegistry::SessionPtr, std::string>> texts;
    std::vector<uint32_t> live;
    sessions.locked([&](SessionRegistry::Map& map) {
        for (const auto& [id, session] : map) {
            live.push_back(id);
            if (auto text = recordText(*session)) {
                texts.emplace_back(session, std::move(*text));
            }
        }
    });
    std::erase_if(
        written, [&live](const auto& entry) { return std::find(live.begin(), live.end(), entry.first) == live.end(); });
    for (auto& [session, text] : texts) {
        write(*session, text);
    }
}

void RecordStore::write(Session& session, const std::string& text) {
    auto& last = written[session.sid];
    if (last == text) {
        return;
    }
    const auto path = sessionRecordPath(directory, session.sid);
    if (Utils::writeFileAtomically(path, text, 0600, "sessionRecordSave")) {
        last = text;
        // Read by the destructor only, once nothing else holds the session.
        session.recordFile = path;
    }
}

std::vector<std::filesystem::path> RecordStore::files() const {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
        const auto& path = entry.path();
        if (path.extension() == ".json" && path.filename().string().front() != '.' && entry.is_regular_file(ec)) {
            found.push_back(path);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace Vexa
