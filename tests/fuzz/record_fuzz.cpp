// Damaged session records: a record file the daemon finds at start must never crash, throw, leak or read out
// of bounds, and whatever it accepts must write back as a record that reads the same again.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/logger.h"
#include "session/record.h"

using namespace Vexa;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    const auto parsed = parseSessionRecord(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!parsed) {
        return 0;
    }
    const auto text = sessionRecordText(*parsed);
    const auto again = parseSessionRecord(text);
    if (!again || sessionRecordText(*again) != text) {
        __builtin_trap();
    }
    return 0;
}
