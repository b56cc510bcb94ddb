#pragma once

// JSON helpers: the strict file reader and a read-only view of one flat JSON object whose member names
// are colon-joined words ("debug:level"); the colon is part of the name, never a path separator.
// A JsonConfig is immutable after construction and may be read from any thread.

#include <cstdint>
#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include <json/value.h>

namespace Vexa {

// Reads and parses a JSON file in strict mode; null on any failure (logged).
Json::Value readJson(const std::filesystem::path& path);

// Parses JSON text in strict mode; null on failure, with the parser's messages in `errors`.
Json::Value parseJsonStrict(std::string_view text, std::string* errors = nullptr);

// One line of JSON, bytes as they are: the default writer would replace bytes that are not UTF-8 (a password or a
// user's file name may hold them) with U+FFFD.
std::string compactJson(const Json::Value& json);

class JsonConfig {
public:
    JsonConfig() = default;
    explicit JsonConfig(Json::Value value) : json(std::move(value)) {}
    explicit JsonConfig(const std::filesystem::path& path);
    virtual ~JsonConfig() = default;

    // True when the parsed value is a JSON object; anything else is unusable.
    bool isValid() const noexcept { return json.isObject(); }
    const Json::Value& value() const noexcept { return json; }

    // Each getter looks the key up as one member name and returns the default when it is absent.
    // Values of the wrong JSON type follow the library's conversion rules (which may throw).
    std::string getString(std::string_view key, std::string_view def = {}) const;
    int32_t getInteger(std::string_view key, int32_t def = 0) const;
    double getDouble(std::string_view key, double def = 0) const;
    bool getBoolean(std::string_view key, bool def = false) const;
    Json::Value getValue(std::string_view key) const;
    std::list<std::string> getStringList(std::string_view key) const;
    std::vector<std::string> getVectorList(std::string_view key) const;
    bool hasValue(std::string_view key) const;
    std::vector<std::string> getKeys() const;

protected:
    const Json::Value* member(std::string_view key) const;

    Json::Value json;
};

// A JsonConfig parsed from text held in memory (for example JSON passed over D-Bus).
class JsonConfigString : public JsonConfig {
public:
    explicit JsonConfigString(std::string_view text);

    // The parser's messages when the text was not valid JSON.
    const std::string& parseErrors() const noexcept { return errors; }

private:
    std::string errors;
};

} // namespace Vexa
