#pragma once

// The RDP transport: serves one accepted RDP connection. The client's logon asks the session service for a
// session, the transport registers itself for it, attaches to the session's X display and serves its screen
// and input until the client leaves, the X server ends or SIGTERM arrives.

#include "rdp/config.h"

#include <string>

namespace Vexa::Rdp {

// Serves the connection on `fd` (taken over: closed when done) in this thread. The process's exit status:
// 0 after a served connection, 1 when set-up or logon failed or was refused.
int serveConnection(int fd, const RdpConfig& config);

// The client's address as administrators read it: IPv4 plain (also when the socket is IPv6 and the
// address is mapped), IPv6 in its short form, "local" for other families, "unknown" without a peer.
std::string peerAddress(int fd);

} // namespace Vexa::Rdp
