#pragma once

// The notification helper's pure parts: its command line, the urgency of a level, and the text layout of its
// own window. The program (notify_main.cpp) shows a message to the user of the session it runs in: through the
// session's notification service when one is on the session bus, else in a window of its own on the display.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexa::Notify {

struct Options {
    std::string header;
    std::string message;
    uint8_t level = 0;
};

// "--header TEXT --message TEXT --level N", each at most once, in any order; nullopt (and `problem` says why)
// for anything else, a missing value or a level that is not a number from 0 to 255.
std::optional<Options> parseArguments(const std::vector<std::string_view>& args, std::string& problem);

// The urgency hint of org.freedesktop.Notifications: level 0 low, 1 normal, 2 and above critical.
uint8_t urgency(uint8_t level);

// The message as lines of at most `columns` bytes: split at newlines, wrapped at the last blank before the limit
// (or cut where there is none), at most `maxLines` lines, the last one ending in "..." when text was left out.
std::vector<std::string> wrapText(std::string_view text, size_t columns, size_t maxLines);

} // namespace Vexa::Notify
