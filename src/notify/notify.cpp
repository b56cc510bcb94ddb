#include "notify.h"

#include <charconv>

namespace Vexa::Notify {

std::optional<Options> parseArguments(const std::vector<std::string_view>& args, std::string& problem) {
    Options options;
    bool header = false;
    bool message = false;
    bool level = false;
    for (size_t i = 0; i < args.size(); i += 2) {
        const auto name = args[i];
        if (i + 1 >= args.size()) {
            problem = "missing value of " + std::string(name);
            return std::nullopt;
        }
        const auto value = args[i + 1];
        bool* seen = nullptr;
        if (name == "--header") {
            seen = &header;
            options.header = value;
        } else if (name == "--message") {
            seen = &message;
            options.message = value;
        } else if (name == "--level") {
            seen = &level;
            unsigned number = 0;
            const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
            if (ec != std::errc() || end != value.data() + value.size() || number > 255) {
                problem = "level not a number from 0 to 255: " + std::string(value);
                return std::nullopt;
            }
            options.level = static_cast<uint8_t>(number);
        } else {
            problem = "unknown argument: " + std::string(name);
            return std::nullopt;
        }
        if (*seen) {
            problem = "repeated argument: " + std::string(name);
            return std::nullopt;
        }
        *seen = true;
    }
    return options;
}

uint8_t urgency(uint8_t level) {
    return level >= 2 ? 2 : level;
}

std::vector<std::string> wrapText(std::string_view text, size_t columns, size_t maxLines) {
    std::vector<std::string> lines;
    if (columns == 0 || maxLines == 0) {
        return lines;
    }
    bool cut = false;
    while (!text.empty() || lines.empty()) {
        if (lines.size() == maxLines) {
            cut = true;
            break;
        }
        auto line = text.substr(0, text.find('\n'));
        size_t next = line.size() + 1; // past the newline
        if (line.size() > columns) {
            const auto blank = line.rfind(' ', columns);
            const size_t end = blank == std::string_view::npos || blank == 0 ? columns : blank;
            next = blank == std::string_view::npos || blank == 0 ? columns : blank + 1;
            line = line.substr(0, end);
        }
        lines.emplace_back(line);
        text = next >= text.size() ? std::string_view() : text.substr(next);
    }
    if (cut && !lines.empty()) {
        auto& last = lines.back();
        last = last.substr(0, columns >= 3 ? columns - 3 : 0) + "...";
    }
    return lines;
}

} // namespace Vexa::Notify
