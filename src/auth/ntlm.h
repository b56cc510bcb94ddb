#pragma once

// The NT password hash of a session: MD4 and HMAC-MD5 through libmhash, the NTLMv1 and NTLMv2 one-way
// functions of the NTLM scheme, and the one-line SAM form in which the session keeps the hash for its
// transport. Pure functions, safe from any thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Vexa {

class Session;

namespace MHash {

// 16-byte digests; std::runtime_error when libmhash cannot set the algorithm up.
std::vector<uint8_t> Digest_MD4(const void* data, size_t size);
std::vector<uint8_t> HMAC_MD5(const void* data, size_t size, const uint8_t* key, size_t keySize);

} // namespace MHash

namespace WinprCompat {

// NT hash: MD4 over the UTF-16LE bytes of the password, as 32 lowercase hex digits.
std::string NTLMv1(const std::string& password);
// NTOWFv2: HMAC-MD5 keyed by the NT hash over the UTF-16LE bytes of the upper-cased user name followed by the
// domain as given, as 32 lowercase hex digits. The user name is upper-cased in ASCII only.
std::string NTLMv2(const std::string& user, const std::string& domain, const std::string& password);

} // namespace WinprCompat

// "user:domain::<hash>:::" with the NTLMv2 or the NTLMv1 hash; no trailing newline.
std::string ntlmHashLine(const std::string& user, const std::string& domain, const std::string& password,
                         bool useNtlmv2);

// Stores the hash line of the session's user and domain in session->user->ntlm, replacing any previous one;
// always true. The user record is reached through the session, so the caller holds the sessions lock (or the
// session is not registered yet).
bool vexaCreateNTLMhashFile(const std::shared_ptr<Session>& session, const std::string& password, bool useNtlmv2);

} // namespace Vexa
