#include "json_config.h"

#include <fstream>
#include <sstream>

#include <json/reader.h>
#include <json/writer.h>

#include "logger.h"

namespace Vexa {

namespace {

Json::Value parseStrict(std::string_view text, std::string& errors) {
    Json::Value root;
    Json::Reader reader(Json::Features::strictMode());
    const char* begin = text.data();
    try {
        if (!reader.parse(begin, begin + text.size(), root, false)) {
            errors = reader.getFormattedErrorMessages();
            return Json::Value();
        }
    } catch (const Json::Exception& err) {
        // The reader throws instead of failing on some input, e.g. nesting deeper than its stack limit.
        errors = err.what();
        return Json::Value();
    }
    return root;
}

template <typename Container>
Container stringElements(const Json::Value* value) {
    Container result;
    if (value) {
        for (const auto& element : *value) {
            result.push_back(element.asString());
        }
    }
    return result;
}

} // namespace

Json::Value readJson(const std::filesystem::path& path) {
    Syslog::info("%s: file: %s", "readJson", path.c_str());

    std::ifstream file(path, std::ios::binary);
    if (!file) {
        Syslog::error("%s: open failed, path: %s", "readJson", path.c_str());
        return Json::Value();
    }

    std::ostringstream content;
    content << file.rdbuf();

    std::string errors;
    auto root = parseStrict(content.str(), errors);
    if (!errors.empty()) {
        Syslog::error("%s: parse failed, path: %s, json error: `%s'", "readJson", path.c_str(), errors.c_str());
    }
    return root;
}

std::string compactJson(const Json::Value& json) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, json);
}

Json::Value parseJsonStrict(std::string_view text, std::string* errors) {
    std::string messages;
    auto root = parseStrict(text, messages);
    if (errors) {
        *errors = std::move(messages);
    }
    return root;
}

JsonConfig::JsonConfig(const std::filesystem::path& path) : json(readJson(path)) {}

const Json::Value* JsonConfig::member(std::string_view key) const {
    if (!json.isObject()) {
        return nullptr;
    }
    return json.find(key.data(), key.data() + key.size());
}

std::string JsonConfig::getString(std::string_view key, std::string_view def) const {
    const auto* value = member(key);
    return value ? value->asString() : std::string(def);
}

int32_t JsonConfig::getInteger(std::string_view key, int32_t def) const {
    const auto* value = member(key);
    return value ? value->asInt() : def;
}

double JsonConfig::getDouble(std::string_view key, double def) const {
    const auto* value = member(key);
    return value ? value->asDouble() : def;
}

bool JsonConfig::getBoolean(std::string_view key, bool def) const {
    const auto* value = member(key);
    return value ? value->asBool() : def;
}

Json::Value JsonConfig::getValue(std::string_view key) const {
    const auto* value = member(key);
    return value ? *value : Json::Value();
}

std::list<std::string> JsonConfig::getStringList(std::string_view key) const {
    return stringElements<std::list<std::string>>(member(key));
}

std::vector<std::string> JsonConfig::getVectorList(std::string_view key) const {
    return stringElements<std::vector<std::string>>(member(key));
}

bool JsonConfig::hasValue(std::string_view key) const {
    return member(key) != nullptr;
}

std::vector<std::string> JsonConfig::getKeys() const {
    return json.isObject() ? json.getMemberNames() : std::vector<std::string>{};
}

JsonConfigString::JsonConfigString(std::string_view text) {
    json = parseStrict(text, errors);
}

} // namespace Vexa
