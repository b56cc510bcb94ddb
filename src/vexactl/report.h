#pragma once

// vexactl's pure parts: the rows of the session table made from the daemon's session documents, the text of
// `show`, durations, and the words of the command line (switches, numbers, connect policies). No I/O.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <json/value.h>

namespace Vexa::Ctl {

struct SessionRow {
    uint32_t id = 0;
    std::string user;
    int display = 0;
    std::string state;
    unsigned transports = 0; // running transports attached
    int64_t since = 0;       // start, seconds since the epoch
    int64_t idle = -1;       // seconds without a transport attached; -1 while one is
};

// The state of a session from its document: "starting" (logind does not know it yet), "ending" (its session
// manager has exited), "login" (a login-screen session), "frozen", "connected" or "disconnected".
std::string sessionState(const Json::Value& doc);
SessionRow sessionRow(uint32_t id, const Json::Value& doc, int64_t now);

// "45s", "12m05s", "3h04m", "2d05h".
std::string formatDuration(int64_t seconds);
// Columns padded to their widest cell, two blanks apart; the first row is the header.
std::string renderTable(const std::vector<std::vector<std::string>>& rows);
std::string sessionsTable(const std::vector<SessionRow>& rows);
Json::Value sessionsJson(const std::vector<SessionRow>& rows);
// The session document as "key  value" lines, keys in alphabetical order (the JSON reader keeps no other);
// each item of a list on a line of its own.
std::string documentText(const Json::Value& doc);

// on/off, yes/no, true/false, 1/0.
std::optional<bool> parseSwitch(std::string_view word);
// A decimal number that fits 32 bits.
std::optional<uint32_t> parseUnsigned(std::string_view word);
// A session id: a positive decimal number.
std::optional<uint32_t> parseSessionId(std::string_view word);
// "next-deny", "prev-replace", "multi-allow" (or their numbers 1, 2, 3).
std::optional<uint32_t> parseConnectPolicy(std::string_view word);
std::string connectPolicyWord(uint32_t policy);

} // namespace Vexa::Ctl
