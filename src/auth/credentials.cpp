#include "credentials.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "common/logger.h"
#include "common/utils.h"
#include "openssl.h"

namespace Vexa {

namespace {

bool hexDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

RequestPassword failed(RequestPassword result, PasswordError error) {
    result.error = error;
    result.password.clear();
    return result;
}

RequestPassword decodeEnciphered(const JsonConfig& params, const char* caller, RequestPassword result) {
    const auto enc = params.getString("password:enc");
    const auto colon = enc.find(':');
    if (colon == std::string::npos) {
        Syslog::error("%s: unknown password enc: `%s'", caller, enc.c_str());
        return failed(std::move(result), PasswordError::UnknownEncoding);
    }
    const auto type = enc.substr(0, colon);
    const auto payload = enc.substr(colon + 1);
    if (!hexDigits(payload)) {
        Syslog::error("%s: invalid format, hexcrypt: `%s'", caller, payload.c_str());
        return failed(std::move(result), PasswordError::InvalidCrypt);
    }
    if (!params.hasValue("server_id")) {
        Syslog::error("%s: params failed, not found: `%s'", caller, "server_id");
        return failed(std::move(result), PasswordError::ServerIdMissing);
    }
    auto hexkey = params.getString("server_id");
    hexkey.erase(std::remove(hexkey.begin(), hexkey.end(), '-'), hexkey.end());
    if (!hexDigits(hexkey)) {
        Syslog::error("%s: invalid format, hexkey: `%s'", caller, hexkey.c_str());
        return failed(std::move(result), PasswordError::InvalidKey);
    }
    // The key is the identifier's text, not the values of its digits.
    const std::vector<uint8_t> key(hexkey.begin(), hexkey.end());
    auto decrypted = OpenSSL::blowfishDecryptString(Utils::hexstr2bytes(payload), key);
    // Checked before the type: every type needs a payload that decrypts to printable text.
    if (decrypted.empty()) {
        Syslog::error("%s: decrypt empty, hexcrypt: `%s', hexkey: `%s'", caller, payload.c_str(), hexkey.c_str());
        return failed(std::move(result), PasswordError::DecryptEmpty);
    }
    if (type == "clear" || type == "plain") {
        result.password = payload;
    } else if (type == "blowfish") {
        Syslog::debug("%s: type: `%s', crypt: `%s'", caller, type.c_str(), "HIDDEN");
        result.password = std::move(decrypted);
    } else {
        Syslog::error("%s: unknown password enc: `%s'", caller, type.c_str());
        return failed(std::move(result), PasswordError::UnknownEncoding);
    }
    return result;
}

} // namespace

RequestPassword decodeRequestPassword(const JsonConfig& params, const char* caller) {
    RequestPassword result;
    const char* key = nullptr;
    if (params.hasValue("password:enc")) {
        result.mode = AuthMode::PasswordEnc;
        key = "password:enc";
    } else if (params.hasValue("password")) {
        result.mode = AuthMode::Password;
        key = "password";
    } else if (params.hasValue("transport_token")) {
        result.mode = AuthMode::TransportToken;
        key = "transport_token";
    } else {
        return result;
    }
    Syslog::notice("%s: auth mode: %s", caller, key);

    switch (result.mode) {
    case AuthMode::PasswordEnc:
        return decodeEnciphered(params, caller, std::move(result));
    case AuthMode::Password:
        result.password = params.getString("password");
        break;
    case AuthMode::TransportToken:
        result.transportToken = params.getString("transport_token");
        break;
    case AuthMode::None:
        break;
    }
    return result;
}

} // namespace Vexa
