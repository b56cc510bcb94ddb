#include "registry.h"

#include <algorithm>

namespace Vexa {

SessionRegistry::SessionPtr SessionRegistry::findSession(const uint32_t& id) const {
    std::lock_guard guard(lock);
    auto found = sessions.find(id);
    return found != sessions.end() ? found->second : nullptr;
}

SessionRegistry::SessionPtr SessionRegistry::findDisplaySession(const uint32_t& display) const {
    std::lock_guard guard(lock);
    auto found = std::find_if(sessions.begin(), sessions.end(), [display](const auto& entry) {
        return entry.second->display >= 0 && static_cast<uint32_t>(entry.second->display) == display;
    });
    return found != sessions.end() ? found->second : nullptr;
}

std::shared_ptr<UserEx> SessionRegistry::findUserInfo(std::string_view name) const {
    std::lock_guard guard(lock);
    for (const auto& [id, session] : sessions) {
        if (session->user && session->user->name == name) {
            return session->user;
        }
    }
    return nullptr;
}

std::list<SessionRegistry::SessionPtr> SessionRegistry::findUserSessions(std::string_view name) const {
    std::list<SessionPtr> result;
    std::lock_guard guard(lock);
    for (const auto& [id, session] : sessions) {
        if (session->user && session->user->name == name) {
            result.push_back(session);
        }
    }
    return result;
}

bool SessionRegistry::add(SessionPtr session) {
    if (!session || session->sid == 0) {
        return false;
    }
    std::lock_guard guard(lock);
    return sessions.emplace(session->sid, std::move(session)).second;
}

SessionRegistry::SessionPtr SessionRegistry::remove(uint32_t id) {
    std::lock_guard guard(lock);
    auto found = sessions.find(id);
    if (found == sessions.end()) {
        return nullptr;
    }
    auto session = std::move(found->second);
    sessions.erase(found);
    return session;
}

std::vector<SessionRegistry::SessionPtr> SessionRegistry::takeAll() {
    std::vector<SessionPtr> all;
    std::lock_guard guard(lock);
    all.reserve(sessions.size());
    for (auto& [id, session] : sessions) {
        all.push_back(std::move(session));
    }
    sessions.clear();
    return all;
}

size_t SessionRegistry::size() const {
    std::lock_guard guard(lock);
    return sessions.size();
}

} // namespace Vexa
