// Hostile configuration and limits text: the strict reader, the getters, the service defaults and the
// resource limits must never crash, leak or read out of bounds. Conversion errors of the JSON library are
// the documented answer to keys of the wrong type and are allowed to throw.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>

#include "common/json_config.h"
#include "common/logger.h"
#include "limits/resource_limits.h"
#include "session/service_defaults.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Silent);
    const Vexa::JsonConfigString config(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!config.isValid()) {
        return 0;
    }
    try {
        (void)Vexa::loadServiceDefaults(config);
    } catch (const std::exception&) {
    }
    try {
        (void)Vexa::readLimitsDefaults(config.value());
        for (const auto& key : config.getKeys()) {
            (void)Vexa::ResourceLimits(config.getValue(key));
            (void)config.getStringList(key);
        }
    } catch (const std::exception&) {
    }
    return 0;
}
