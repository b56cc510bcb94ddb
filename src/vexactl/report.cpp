#include "vexactl/report.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>

#include <json/writer.h>

namespace Vexa::Ctl {

namespace {

constexpr std::string_view policyWords[] = {"next-deny", "prev-replace", "multi-allow"};

std::string localTime(int64_t epoch) {
    const std::time_t t = static_cast<std::time_t>(epoch);
    std::tm tm{};
    char text[32];
    if (!localtime_r(&t, &tm) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &tm) == 0) {
        return "-";
    }
    return text;
}

std::string scalarText(const Json::Value& value) {
    if (value.isString()) {
        return value.asString();
    }
    if (value.isNull()) {
        return "";
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

} // namespace

std::string sessionState(const Json::Value& doc) {
    if (doc["systemd:sid"].asString().empty()) {
        return "starting";
    }
    if (doc["pid2"].asInt() <= 0) {
        return "ending";
    }
    if (doc["login:mode"].asBool()) {
        return "login";
    }
    if (doc["session:frozen"].asBool()) {
        return "frozen";
    }
    return doc["remote:connected"].asBool() ? "connected" : "disconnected";
}

SessionRow sessionRow(uint32_t id, const Json::Value& doc, int64_t now) {
    SessionRow row;
    row.id = id;
    row.user = doc["username"].asString();
    row.display = doc["display"].asInt();
    row.state = sessionState(doc);
    for (const auto& connect : doc["remote:connects"]) {
        row.transports += connect["pid"].asInt() > 0 ? 1 : 0;
    }
    row.since = doc["started:timepoint"].asInt64();
    if (!doc["remote:connected"].asBool()) {
        // Never connected: idle since the start.
        const int64_t from = std::max(row.since, doc["disconnected:timepoint"].asInt64());
        row.idle = std::max<int64_t>(0, now - from);
    }
    return row;
}

std::string formatDuration(int64_t seconds) {
    char text[32];
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%llds", static_cast<long long>(seconds));
    } else if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%lldm%02llds", static_cast<long long>(seconds / 60),
                      static_cast<long long>(seconds % 60));
    } else if (seconds < 86400) {
        std::snprintf(text, sizeof text, "%lldh%02lldm", static_cast<long long>(seconds / 3600),
                      static_cast<long long>(seconds % 3600 / 60));
    } else {
        std::snprintf(text, sizeof text, "%lldd%02lldh", static_cast<long long>(seconds / 86400),
                      static_cast<long long>(seconds % 86400 / 3600));
    }
    return text;
}

std::string renderTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) {
                line.append(widths[i] - row[i].size() + 2, ' ');
            }
        }
        text += line + "\n";
    }
    return text;
}

std::string sessionsTable(const std::vector<SessionRow>& rows) {
    std::vector<std::vector<std::string>> cells{{"ID", "USER", "DISPLAY", "STATE", "TRANSPORTS", "SINCE", "IDLE"}};
    for (const auto& row : rows) {
        cells.push_back({std::to_string(row.id), row.user, ":" + std::to_string(row.display), row.state,
                         std::to_string(row.transports), localTime(row.since),
                         row.idle < 0 ? "-" : formatDuration(row.idle)});
    }
    return renderTable(cells);
}

Json::Value sessionsJson(const std::vector<SessionRow>& rows) {
    Json::Value list(Json::arrayValue);
    for (const auto& row : rows) {
        Json::Value item(Json::objectValue);
        item["id"] = row.id;
        item["user"] = row.user;
        item["display"] = row.display;
        item["state"] = row.state;
        item["transports"] = row.transports;
        item["since"] = Json::Int64{row.since};
        item["idle"] = row.idle < 0 ? Json::Value() : Json::Value(Json::Int64{row.idle});
        list.append(item);
    }
    return list;
}

std::string documentText(const Json::Value& doc) {
    std::vector<std::vector<std::string>> cells;
    for (auto it = doc.begin(); it != doc.end(); ++it) {
        const std::string key = it.name();
        const Json::Value& value = *it;
        if (value.isArray() && !value.empty()) {
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
                cells.push_back({i == 0 ? key : "", scalarText(value[i])});
            }
        } else {
            cells.push_back({key, scalarText(value)});
        }
    }
    return renderTable(cells);
}

std::optional<bool> parseSwitch(std::string_view word) {
    for (const auto on : {"on", "yes", "true", "1"}) {
        if (word == on) {
            return true;
        }
    }
    for (const auto off : {"off", "no", "false", "0"}) {
        if (word == off) {
            return false;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> parseUnsigned(std::string_view word) {
    uint32_t value = 0;
    const auto [end, err] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (word.empty() || err != std::errc() || end != word.data() + word.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint32_t> parseSessionId(std::string_view word) {
    const auto value = parseUnsigned(word);
    if (!value || *value == 0 || *value > 0x7fffffffu) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint32_t> parseConnectPolicy(std::string_view word) {
    for (uint32_t i = 0; i < std::size(policyWords); ++i) {
        if (word == policyWords[i] || word == std::to_string(i + 1)) {
            return i + 1;
        }
    }
    return std::nullopt;
}

std::string connectPolicyWord(uint32_t policy) {
    return policy >= 1 && policy <= std::size(policyWords) ? std::string(policyWords[policy - 1])
                                                           : "unknown (" + std::to_string(policy) + ")";
}

} // namespace Vexa::Ctl
