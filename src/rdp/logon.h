#pragma once

// What the transport asks the service for at logon, and what a refusal means to the client. Pure, any thread.

#include <cstdint>
#include <string>

namespace Vexa::Rdp {

struct LogonInfo {
    std::string username;
    std::string domain;
    std::string password;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t depth = 0;
    // The security layer the connection runs over.
    bool nla = false;
    bool tls = false;
    bool rdp = false;
};

// The JSON text of vexaSessionRequest. The size is bounded to what an X screen takes (the service refuses
// more); the session's depth is always 24, whatever the client's. Holds the password: wipe it after use.
std::string sessionRequestJson(const LogonInfo& logon);

// How a refusal of the session request is told to the client.
struct Refusal {
    // An ERRINFO_* code sent in the error info PDU before the disconnect.
    uint32_t errorInfo = 0;
    // A LOGON_FAILED_* code for the logon error info, or -1 when the refusal is not about the credentials.
    int64_t logonError = -1;
    // For the log.
    const char* reason = "";
};
Refusal refusalFor(int32_t reply);

} // namespace Vexa::Rdp
