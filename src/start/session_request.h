#pragma once

// The session request of a transport: one JSON object text with every login parameter, turned into the
// arguments of a session start, and the start's status turned into the request's reply.
// Pure functions; safe from any thread. The password is never logged.

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "auth/admission.h"
#include "auth/credentials.h"
#include "programs/program_list.h"

namespace Vexa {

inline constexpr const char* defaultSessionName = "DefaultSession";

struct SessionRequest {
    std::string username;
    std::string domain;
    std::string uizr;
    bool loginRequired = false;
    RequestPassword credentials;
    std::optional<std::string> serverId;
    uint8_t depth = 24;
    uint16_t width = 1280;
    uint16_t height = 1024;
    std::string sessionPath = terminalProgram;
    std::list<std::string> sessionArgs;
    RunMode mode = RunMode::UserSessionRequest; // UserSession when a published program was asked for
    std::optional<bool> secNla;
    std::optional<bool> secTls;
    std::optional<bool> secRdp;
    std::optional<bool> secAuth;
    std::optional<std::string> gusId;
    bool useNtlmv2 = false;
    bool transportRun = true;
};

// Either the arguments of the start, or the reply that ends the request before any start.
struct ParsedSessionRequest {
    std::optional<SessionRequest> request;
    int32_t reply = 0;
};

// Reads the request as far as the session start; every refusal is logged under "vexaSessionRequest".
// `findProgram` looks a published program up by name. Never throws: a text that is no JSON object, or a key
// of another JSON type than its own (text, flag, integer in range, list of texts), is refused with -4 and
// logged.
ParsedSessionRequest parseSessionRequest(std::string_view text,
                                         const std::function<std::optional<Program>(std::string_view)>& findProgram);

// The request's reply for a start status other than success: -1..-7 for statuses 1..7, status 8 gives -9 and
// status 9 gives -8 (the crossing is part of the interface).
int32_t sessionRequestReply(StartStatus status) noexcept;

} // namespace Vexa
