#include "polkit.h"

namespace Vexa {

namespace {

constexpr const char* polkitName = "org.freedesktop.PolicyKit1";
constexpr const char* polkitPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* polkitInterface = "org.freedesktop.PolicyKit1.Authority";
// Longer than a local rule evaluation could take, shorter than the caller's own call time-out.
constexpr auto queryTimeout = std::chrono::seconds(5);
constexpr size_t cacheLimit = 1024;

} // namespace

std::optional<bool> PolkitAuthority::cached(const std::string& busName, const std::string& action,
                                            Clock::time_point now) {
    std::lock_guard guard(cacheLock);
    const auto found = answers.find({busName, action});
    if (found == answers.end() || now - found->second.second >= answerLifetime) {
        return std::nullopt;
    }
    return found->second.first;
}

PolkitAuthority::Answer PolkitAuthority::check(const std::string& busName, const std::string& action) {
    if (const auto known = cached(busName, action, Clock::now())) {
        return {*known, {}};
    }
    using Subject = sdbus::Struct<std::string, std::map<std::string, sdbus::Variant>>;
    using Result = sdbus::Struct<bool, bool, std::map<std::string, std::string>>;
    Result result;
    try {
        std::lock_guard guard(queryLock);
        if (!authority) {
            connection = sdbus::createSystemBusConnection();
            authority = sdbus::createProxy(*connection, polkitName, polkitPath);
        }
        const Subject subject("system-bus-name", {{"name", sdbus::Variant(busName)}});
        const std::map<std::string, std::string> details;
        // Flags 0: no interaction; a caller on the system bus has no agent to ask a password of.
        authority->callMethod("CheckAuthorization")
            .onInterface(polkitInterface)
            .withTimeout(queryTimeout)
            .withArguments(subject, action, details, uint32_t{0}, std::string())
            .storeResultsTo(result);
    } catch (const sdbus::Error& err) {
        std::lock_guard guard(queryLock);
        // A lost connection is made again by the next query.
        authority.reset();
        connection.reset();
        return {false, err.getName() + ": " + err.getMessage()};
    }
    const bool authorized = std::get<0>(result);
    const auto now = Clock::now();
    std::lock_guard guard(cacheLock);
    if (answers.size() >= cacheLimit) {
        std::erase_if(answers, [now](const auto& entry) { return now - entry.second.second >= answerLifetime; });
        if (answers.size() >= cacheLimit) {
            answers.clear();
        }
    }
    answers[{busName, action}] = {authorized, now};
    return {authorized, {}};
}

} // namespace Vexa
