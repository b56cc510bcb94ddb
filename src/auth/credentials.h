#pragma once

// The password of a session request: which of the request's keys authenticates the user, and the decoding of
// an enciphered password ("password:enc" = "<type>:<hex ciphertext>", keyed by the request's "server_id").
// Pure function over the parsed request; safe from any thread. The password itself is never logged.

#include <string>

#include "common/json_config.h"

namespace Vexa {

// The first present of "password:enc", "password", "transport_token".
enum class AuthMode {
    None,
    PasswordEnc,
    Password,
    TransportToken,
};

enum class PasswordError {
    None,
    UnknownEncoding, // no ':' in "password:enc", or a type other than "clear", "plain", "blowfish"
    InvalidCrypt,    // the payload is not hexadecimal
    ServerIdMissing, // "password:enc" without "server_id"
    InvalidKey,      // "server_id" without its dashes is not hexadecimal
    DecryptEmpty,    // the payload decrypts to no printable text under the server key
};

struct RequestPassword {
    AuthMode mode = AuthMode::None;
    PasswordError error = PasswordError::None;
    std::string password;       // modes PasswordEnc and Password, when there is no error
    std::string transportToken; // mode TransportToken

    bool ok() const noexcept { return error == PasswordError::None; }
};

// Reads the authentication keys of a session request; every failure is logged under `caller` with the
// request's texts. Values of the wrong JSON type throw the JSON library's exception (a std::exception).
RequestPassword decodeRequestPassword(const JsonConfig& params, const char* caller = "vexaSessionRequest");

} // namespace Vexa
