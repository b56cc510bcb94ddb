#include "rdp/transport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <freerdp/channels/channels.h>
#include <freerdp/channels/wtsvc.h>
#include <freerdp/error.h>
#include <freerdp/freerdp.h>
#include <freerdp/locale/keyboard.h>
#include <freerdp/peer.h>
#include <freerdp/pointer.h>
#include <freerdp/server/cliprdr.h>
#include <freerdp/server/disp.h>
#include <freerdp/session.h>
#include <winpr/synch.h>
#include <winpr/wtsapi.h>

#include "common/json_config.h"
#include "common/logger.h"
#include "common/utils.h"
#include "rdp/bus_client.h"
#include "rdp/clipboard_text.h"
#include "rdp/cursor_shape.h"
#include "rdp/damage_region.h"
#include "rdp/encoder.h"
#include "rdp/input_map.h"
#include "rdp/logon.h"
#include "rdp/monitor_layout.h"
#include "rdp/x_clipboard.h"
#include "rdp/x_display.h"
#include "xcb/xauth_file.h"

namespace Vexa::Rdp {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Rectangles one frame is merged into at most.
constexpr size_t maxFrameRects = 16;

class Connection;

// The peer's context with a way back to the connection that owns it.
struct PeerContext {
    rdpContext base;
    Connection* owner;
};

Connection* ownerOf(rdpContext* context) {
    return reinterpret_cast<PeerContext*>(context)->owner;
}

void wipe(std::string& text) {
    explicit_bzero(text.data(), text.size());
    text.clear();
}

void wipe(char* text) {
    if (text) {
        explicit_bzero(text, strlen(text));
    }
}

class Connection {
public:
    Connection(int fd, const RdpConfig& cfg) : config(cfg), address(peerAddress(fd)) {
        peer = freerdp_peer_new(fd);
        if (!peer) {
            close(fd);
            throw std::runtime_error("freerdp_peer_new failed");
        }
        peer->ContextSize = sizeof(PeerContext);
        peer->ContextNew = [](freerdp_peer*, rdpContext*) -> BOOL { return TRUE; };
        peer->ContextFree = [](freerdp_peer*, rdpContext*) {};
        if (!freerdp_peer_context_new(peer)) {
            freerdp_peer_free(peer);
            peer = nullptr;
            throw std::runtime_error("freerdp_peer_context_new failed");
        }
        reinterpret_cast<PeerContext*>(peer->context)->owner = this;
    }

    ~Connection() {
        encoder.reset();
        closeClipboard();
        if (disp) {
            // Joins the channel's thread: no layout arrives after this.
            disp->Close(disp);
            disp_server_context_free(disp);
        }
        if (vcm) {
            WTSCloseServer(vcm);
        }
        if (peer) {
            freerdp_peer_context_free(peer);
            freerdp_peer_free(peer);
        }
        if (xEvent) {
            CloseHandle(xEvent);
        }
        if (busEvent) {
            CloseHandle(busEvent);
        }
        if (signalEvent) {
            CloseHandle(signalEvent);
        }
        if (layoutEvent) {
            CloseHandle(layoutEvent);
        }
        if (signalFd >= 0) {
            close(signalFd);
        }
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int run();

private:
    bool setUp();
    bool postConnect();
    bool activate();
    void refuse(uint32_t errorInfo, int64_t logonError, const char* reason);
    bool attach(const LogonInfo& logon);
    bool showLoginScreen(const LogonInfo& logon);
    std::optional<uint32_t> sessionOnDisplay(uint32_t wanted);
    bool attachTo(uint32_t session, uint32_t newDisplay, const std::string& xauthfile, uint32_t width, uint32_t height,
                  bool knock);
    void switchDisplay(const DisplaySwitch& to);
    void checkLoginLimits();
    void applyTcpKeepAlive();
    void sendCursor();
    void sendFrame();
    void desktopResize();
    void noteInput() {
        lastInput = Clock::now();
        inactivityReported = false;
    }
    void keyboard(UINT16 flags, UINT16 code);
    DWORD xKeycode(uint32_t scancode, bool extended) const;
    void synchronize(UINT32 flags);
    void unicodeKey(UINT16 flags, UINT16 code);
    void mouse(const std::vector<PointerAction>& actions);
    void checkInactivity();
    void openClipboard();
    void closeClipboard();
    ClipboardPolicy clipboardPolicyNow();
    UINT clientFormatList(const CLIPRDR_FORMAT_LIST& list);
    UINT clientFormatDataRequest(const CLIPRDR_FORMAT_DATA_REQUEST& request);
    UINT clientFormatDataResponse(const CLIPRDR_FORMAT_DATA_RESPONSE& response);
    void sendClipboardText(std::optional<std::string> text);
    void openDisplayControl();
    void applyLayout();
    void handleX();
    int timeoutMs() const;

    RdpConfig config;
    std::string address;
    freerdp_peer* peer = nullptr;
    HANDLE vcm = nullptr;
    int signalFd = -1;
    HANDLE signalEvent = nullptr;
    HANDLE xEvent = nullptr;
    // The bus connection's descriptor, waited on while the login screen is shown.
    HANDLE busEvent = nullptr;

    std::unique_ptr<BusClient> bus;
    std::unique_ptr<XDisplay> x;
    std::unique_ptr<Encoder> encoder;
    std::unique_ptr<XClipboard> xClipboard;
    CliprdrServerContext* cliprdr = nullptr;
    HANDLE cliprdrEvent = nullptr;
    // The client's text is asked for; the client asked for ours.
    bool clientTextRequested = false;
    bool clientAwaitsText = false;
    size_t clientTextLimit = 0;

    uint32_t sessionId = 0;
    uint32_t display = 0;
    bool attached = false;
    bool keyboardReady = false;
    ScancodeTable keycodes{};
    // The login screen is shown: its limits are this transport's to keep, and the service may move the connection
    // to the display of the session its user logged in to.
    bool loginScreen = false;
    std::chrono::system_clock::time_point loginShown{};
    Clock::time_point loginEnds = Clock::time_point::max();
    std::optional<DisplaySwitch> switchAsked;
    bool activated = false;
    bool suppressed = false;
    bool resizePending = false;
    bool terminated = false;
    int exitCode = 0;

    // The display control channel: FreeRDP reads it on a thread of its own, whose callback leaves the client's
    // newest monitor layout here and sets layoutEvent; the event loop applies it.
    DispServerContext* disp = nullptr;
    bool dispTried = false;
    HANDLE layoutEvent = nullptr;
    std::mutex layoutLock;
    std::optional<std::vector<Monitor>> newLayout; // guarded by layoutLock

    Utf16Joiner unicodeUnits;

    std::vector<Rect> pending;
    Clock::time_point nextFrame{};
    uint32_t cursorSerial = 0;

    uint32_t inactivityLimit = 0;
    bool inactivityReported = false;
    Clock::time_point lastInput = Clock::now();
};

bool Connection::setUp() {
    rdpSettings* settings = peer->settings;
    if (access(config.certificate.c_str(), R_OK) != 0 || access(config.key.c_str(), R_OK) != 0) {
        const bool certMissing = access(config.certificate.c_str(), R_OK) != 0;
        const std::string& path = certMissing ? config.certificate : config.key;
        Syslog::error("%s: cannot read the TLS %s `%s', error: %s", "setUp", certMissing ? "certificate" : "key",
                      path.c_str(), Utils::errnoText(errno).c_str());
        return false;
    }
    if (!freerdp_settings_set_string(settings, FreeRDP_CertificateFile, config.certificate.c_str()) ||
        !freerdp_settings_set_string(settings, FreeRDP_PrivateKeyFile, config.key.c_str())) {
        Syslog::error("%s: %s failed", "setUp", "freerdp_settings_set_string");
        return false;
    }
    if (config.securityRdp && !freerdp_settings_set_string(settings, FreeRDP_RdpKeyFile, config.key.c_str())) {
        Syslog::error("%s: %s failed", "setUp", "freerdp_settings_set_string");
        return false;
    }
    settings->RdpSecurity = config.securityRdp;
    settings->TlsSecurity = config.securityTls;
    settings->NlaSecurity = config.securityNla;
    settings->EncryptionLevel = ENCRYPTION_LEVEL_CLIENT_COMPATIBLE;
    settings->RemoteFxCodec = config.remoteFx;
    settings->NSCodec = FALSE;
    settings->SupportGraphicsPipeline = FALSE;
    settings->ColorDepth = 32;
    settings->SuppressOutput = TRUE;
    settings->RefreshRect = TRUE;
    settings->FrameMarkerCommandEnabled = TRUE;
    settings->SurfaceFrameMarkerEnabled = TRUE;
    settings->HasExtendedMouseEvent = TRUE;
    settings->HasHorizontalWheel = TRUE;
    settings->UnicodeInput = TRUE;
    settings->DesktopResize = TRUE;
    settings->SupportDisplayControl = TRUE;

    peer->PostConnect = [](freerdp_peer* p) -> BOOL { return ownerOf(p->context)->postConnect(); };
    peer->Activate = [](freerdp_peer* p) -> BOOL { return ownerOf(p->context)->activate(); };

    rdpInput* input = peer->input;
    input->SynchronizeEvent = [](rdpInput* in, UINT32 flags) -> BOOL {
        ownerOf(in->context)->synchronize(flags);
        return TRUE;
    };
    input->KeyboardEvent = [](rdpInput* in, UINT16 flags, UINT16 code) -> BOOL {
        ownerOf(in->context)->keyboard(flags, code);
        return TRUE;
    };
    input->UnicodeKeyboardEvent = [](rdpInput* in, UINT16 flags, UINT16 code) -> BOOL {
        ownerOf(in->context)->unicodeKey(flags, code);
        return TRUE;
    };
    input->MouseEvent = [](rdpInput* in, UINT16 flags, UINT16 px, UINT16 py) -> BOOL {
        ownerOf(in->context)->mouse(pointerActions(flags, px, py));
        return TRUE;
    };
    input->ExtendedMouseEvent = [](rdpInput* in, UINT16 flags, UINT16 px, UINT16 py) -> BOOL {
        ownerOf(in->context)->mouse(extendedPointerActions(flags, px, py));
        return TRUE;
    };

    rdpUpdate* update = peer->update;
    update->RefreshRect = [](rdpContext* context, BYTE count, const RECTANGLE_16* areas) -> BOOL {
        Connection* self = ownerOf(context);
        for (BYTE i = 0; i < count; ++i) {
            self->pending.push_back(
                {areas[i].left, areas[i].top, areas[i].right - areas[i].left + 1, areas[i].bottom - areas[i].top + 1});
        }
        return TRUE;
    };
    update->SuppressOutput = [](rdpContext* context, BYTE allow, const RECTANGLE_16*) -> BOOL {
        Connection* self = ownerOf(context);
        Syslog::debug("%s: output %s", "SuppressOutput", allow ? "allowed" : "suppressed");
        self->suppressed = !allow;
        if (allow && self->x) {
            self->pending.push_back({0, 0, self->x->width(), self->x->height()});
        }
        return TRUE;
    };
    update->SurfaceFrameAcknowledge = [](rdpContext*, UINT32) -> BOOL { return TRUE; };

    if (!peer->Initialize(peer)) {
        Syslog::error("%s: %s failed", "setUp", "freerdp_peer Initialize");
        return false;
    }
    vcm = WTSOpenServerA(reinterpret_cast<LPSTR>(peer->context));
    if (!vcm || vcm == INVALID_HANDLE_VALUE) {
        Syslog::error("%s: %s failed", "setUp", "WTSOpenServerA");
        return false;
    }

    // The signals were blocked before any thread started (serveConnection); they arrive here instead.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    signalFd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", "setUp", "signalfd", Utils::errnoText(errno).c_str(),
                      errno);
        return false;
    }
    signalEvent = CreateFileDescriptorEvent(nullptr, FALSE, FALSE, signalFd, WINPR_FD_READ);
    layoutEvent = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    return signalEvent != nullptr && layoutEvent != nullptr;
}

void Connection::refuse(uint32_t errorInfo, int64_t logonError, const char* reason) {
    Syslog::warning("%s: connection refused, address: %s, reason: %s", "logon", address.c_str(), reason);
    if (logonError >= 0 && peer->update->SaveSessionInfo) {
        logon_info_ex info{};
        info.haveErrorInfo = TRUE;
        info.ErrorNotificationType = static_cast<UINT32>(logonError);
        info.ErrorNotificationData = LOGON_MSG_SESSION_TERMINATE;
        peer->update->SaveSessionInfo(peer->context, INFO_TYPE_LOGON_EXTENDED_INF, &info);
    }
    freerdp_set_error_info(peer->context->rdp, errorInfo);
    freerdp_send_error_info(peer->context->rdp);
    exitCode = 1;
}

bool Connection::postConnect() {
    rdpSettings* settings = peer->settings;
    LogonInfo logon;
    logon.username = settings->Username ? settings->Username : "";
    logon.domain = settings->Domain ? settings->Domain : "";
    logon.password = settings->Password ? settings->Password : "";
    wipe(settings->Password);
    logon.width = settings->DesktopWidth;
    logon.height = settings->DesktopHeight;
    logon.depth = settings->ColorDepth;
    logon.nla = settings->NlaSecurity;
    logon.tls = settings->TlsSecurity && !settings->NlaSecurity;
    logon.rdp = settings->RdpSecurity && !settings->TlsSecurity && !settings->NlaSecurity;
    Syslog::info("%s: client: %s, user: `%s', domain: `%s', size: %ux%u, depth: %u, client build: %u", "postConnect",
                 address.c_str(), logon.username.c_str(), logon.domain.c_str(), logon.width, logon.height, logon.depth,
                 settings->ClientBuild);
    try {
        bus = std::make_unique<BusClient>();
    } catch (const std::exception& err) {
        wipe(logon.password);
        Syslog::error("%s: exception: %s", "postConnect", err.what());
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "system bus unreachable");
        return FALSE;
    }
    // A client without a password logs in on the login screen; so does every client where the service says so.
    if (logon.username.empty() || logon.password.empty() || bus->transportPolicyShowLoginHelper()) {
        wipe(logon.password);
        return showLoginScreen(logon);
    }
    const bool ok = attach(logon);
    wipe(logon.password);
    return ok;
}

bool Connection::attach(const LogonInfo& logon) {
    const auto requested = std::chrono::system_clock::now();
    std::string params = sessionRequestJson(logon);
    const int32_t reply = bus->sessionRequest(params, config.startTimeout);
    wipe(params);
    if (reply <= 0) {
        const Refusal refusal = refusalFor(reply);
        Syslog::notice("%s: session request refused, user: `%s', code: %d", "attach", logon.username.c_str(), reply);
        refuse(refusal.errorInfo, refusal.logonError, refusal.reason);
        return false;
    }
    const auto session = static_cast<uint32_t>(reply);
    const JsonConfigString info(bus->sessionInfoJson(session));
    if (!info.isValid() || !info.hasValue("display") || !info.hasValue("xauthfile")) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no session report");
        return false;
    }
    const auto started =
        std::chrono::system_clock::time_point(std::chrono::seconds(info.getValue("started:timepoint").asInt64()));
    return attachTo(session, static_cast<uint32_t>(info.getInteger("display")), info.getString("xauthfile"),
                    logon.width, logon.height, started + 1s < requested);
}

bool Connection::showLoginScreen(const LogonInfo& logon) {
    const pid_t self = getpid();
    // Listened to before the screen exists: nobody can log in on it earlier.
    if (!bus->watchDisplaySwitch(self, [this](DisplaySwitch to) { switchAsked = std::move(to); })) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no login screen: the service's signals cannot be heard");
        return false;
    }
    busEvent = CreateFileDescriptorEvent(nullptr, FALSE, FALSE, bus->fd(), WINPR_FD_READ);
    const auto screen = bus->loginHelperStart(config.loginUser, self, config.startTimeout);
    if (!busEvent || !screen) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no login screen");
        return false;
    }
    const auto session = sessionOnDisplay(static_cast<uint32_t>(screen->display));
    if (!session) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no login screen session");
        return false;
    }
    loginScreen = true;
    loginShown = std::chrono::system_clock::now();
    const JsonConfigString info(bus->sessionInfoJson(*session));
    const auto duration = info.isValid() ? info.getInteger("duration:limit") : 0;
    loginEnds = duration > 0 ? Clock::now() + std::chrono::seconds(duration) : Clock::time_point::max();
    Syslog::info("%s: client: %s, user: `%s', login screen: session id: %u, display: %d, duration limit: %ds",
                 "showLoginScreen", address.c_str(), logon.username.c_str(), *session, screen->display, duration);
    return attachTo(*session, static_cast<uint32_t>(screen->display), screen->xauthfile, logon.width, logon.height,
                    false);
}

std::optional<uint32_t> Connection::sessionOnDisplay(uint32_t wanted) {
    for (const uint32_t id : bus->sessions()) {
        const JsonConfigString info(bus->sessionInfoJson(id));
        if (info.isValid() && info.hasValue("display") && info.getInteger("display") == static_cast<int32_t>(wanted)) {
            return id;
        }
    }
    return std::nullopt;
}

bool Connection::attachTo(uint32_t session, uint32_t newDisplay, const std::string& xauthfile, uint32_t width,
                          uint32_t height, bool knock) {
    sessionId = session;
    display = newDisplay;
    Syslog::info("%s: session id: %u, display: %u, %s", "attach", sessionId, display,
                 knock ? "running session" : "new session");

    if (knock) {
        // The socket unit listens for every session; for a running session this connection is its listener,
        // and the knock is reported so that the session's user hears of it.
        bus->proxyListenStarted(sessionId, true);
        bus->proxyClientConnected(sessionId, address);
    }
    if (!bus->connectRdpTransport(sessionId, 0)) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "connect policy of the session");
        sessionId = 0;
        return false;
    }
    bus->proxySessionConnected(sessionId, static_cast<uint32_t>(getpid()), address);
    attached = true;

    const auto cookie = Utils::readXauthfile(xauthfile);
    if (cookie.empty()) {
        Syslog::error("%s: cannot read the X authority file `%s'", "attach", xauthfile.c_str());
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "X authority file unreadable");
        return false;
    }
    try {
        x = std::make_unique<XDisplay>(display, cookie);
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", "attach", err.what());
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "session display unreachable");
        return false;
    }
    if (x->width() != width || x->height() != height) {
        const bool resized = bus->displayResize(display, static_cast<uint16_t>(width), static_cast<uint16_t>(height),
                                                config.startTimeout);
        Syslog::info("%s: display: %u, size %ux%u, client %ux%u, resize: %s", "attach", display, x->width(),
                     x->height(), width, height, resized ? "success" : "failed");
        // The RandR notice of the new size arrives as an event and updates the frame buffer.
        x->dispatch();
    }
    xEvent = CreateFileDescriptorEvent(nullptr, FALSE, FALSE, x->fd(), WINPR_FD_READ);
    if (!xEvent) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no event for the X connection");
        return false;
    }

    // FreeRDP's keyboard tables look at the X server named by DISPLAY: the first session's, with its cookie file.
    // The service's X servers all have the same keycodes, so a display switched to later keeps the tables (and
    // the environment is not written while the channels' threads run).
    if (!keyboardReady) {
        const std::string displayName = ":" + std::to_string(display);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet (the channels' start after activation)
        setenv("DISPLAY", displayName.c_str(), 1);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): as above
        setenv("XAUTHORITY", xauthfile.c_str(), 1);
        const DWORD layout = freerdp_keyboard_init(peer->settings->KeyboardLayout);
        const auto bound = x->boundKeycodes();
        keycodes = scancodeTable([](uint8_t code) { return freerdp_keyboard_get_rdp_scancode_from_x11_keycode(code); },
                                 [&bound](uint8_t code) { return bound.test(code); });
        Syslog::debug("%s: keyboard layout: 0x%08x, client: 0x%08x, left Alt: keycode %u", "attach", layout,
                      peer->settings->KeyboardLayout, keycodeOf(keycodes, 0x38, false));
        keyboardReady = true;
    }

    inactivityLimit = bus->transportDisplayInactivity(display);
    inactivityReported = false;
    const auto [redirect, clipboardLimit] = bus->transportDisplayPolicyRedirect(display);
    Syslog::debug("%s: inactivity limit: %us, redirect policy: 0x%08x, clipboard limit: %u", "attach", inactivityLimit,
                  redirect, clipboardLimit);
    applyTcpKeepAlive();
    lastInput = Clock::now();
    return true;
}

// The login screen's user has a session: the connection moves to its display and the client stays connected. The
// login screen ends by itself once this transport is registered with the user's session.
void Connection::switchDisplay(const DisplaySwitch& to) {
    Syslog::info("%s: display: %u to display: %d", "switchDisplay", display, to.display);
    const auto session = to.display >= 0 ? sessionOnDisplay(static_cast<uint32_t>(to.display)) : std::nullopt;
    if (!session) {
        refuse(ERRINFO_SERVER_DENIED_CONNECTION, -1, "no session on the display switched to");
        return;
    }
    const JsonConfigString info(bus->sessionInfoJson(*session));
    // A session that ran before the login screen was shown is knocked on like a reconnect (the report's start time
    // is in whole seconds).
    const auto started =
        std::chrono::system_clock::time_point(std::chrono::seconds(info.getValue("started:timepoint").asInt64()));
    const uint32_t loginDisplay = display;
    closeClipboard();
    if (xEvent) {
        CloseHandle(xEvent);
        xEvent = nullptr;
    }
    x.reset();
    pending.clear();
    loginScreen = false;
    rdpSettings* settings = peer->settings;
    if (!attachTo(*session, static_cast<uint32_t>(to.display), to.xauthfile, settings->DesktopWidth,
                  settings->DesktopHeight, started + 1s < loginShown)) {
        return;
    }
    bus->transportDisplayShutdown(loginDisplay);
    if (!activated) {
        return; // the client's next activation sends the new screen
    }
    if (settings->DesktopWidth != x->width() || settings->DesktopHeight != x->height()) {
        if (settings->DesktopResize) {
            resizePending = true;
        }
    } else {
        pending.push_back({0, 0, x->width(), x->height()});
        cursorSerial = 0;
        sendCursor();
    }
    openClipboard();
}

// The service's keep-alive policy (seconds between probes, probes missed before the connection is dropped)
// applied to the connection's TCP socket: a vanished client is noticed without RDP traffic of its own.
void Connection::applyTcpKeepAlive() {
    const auto [failures, interval] = bus->transportDisplayRdpKeepAlive(display);
    if (interval == 0 || failures == 0) {
        return;
    }
    const int fd = peer->sockfd;
    const int on = 1;
    const int idle = static_cast<int>(interval);
    const int count = static_cast<int>(failures);
    if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle)) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &idle, sizeof(idle)) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof(count)) != 0) {
        Syslog::debug("%s: %s failed, error: %s, code: %d", "applyTcpKeepAlive", "setsockopt",
                      Utils::errnoText(errno).c_str(), errno);
        return;
    }
    Syslog::debug("%s: interval: %us, failures: %u", "applyTcpKeepAlive", interval, failures);
}

bool Connection::activate() {
    if (!x) {
        return FALSE;
    }
    rdpSettings* settings = peer->settings;
    if (settings->DesktopWidth != x->width() || settings->DesktopHeight != x->height()) {
        if (settings->DesktopResize) {
            resizePending = true;
            return TRUE;
        }
        Syslog::warning("%s: client %ux%u cannot follow the display's %ux%u", "activate", settings->DesktopWidth,
                        settings->DesktopHeight, x->width(), x->height());
    }
    try {
        encoder = std::make_unique<Encoder>(peer->context, config.remoteFx);
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", "activate", err.what());
        return FALSE;
    }
    Syslog::info("%s: session id: %u, desktop: %ux%u, codec: %s, depth: %u, multifrag: %u", "activate", sessionId,
                 settings->DesktopWidth, settings->DesktopHeight, codecName(encoder->codec()), settings->ColorDepth,
                 settings->MultifragMaxRequestSize);
    activated = true;
    // Nothing is copied to or from the login screen; the clipboard opens with the user's session.
    if (!cliprdr && !loginScreen) {
        openClipboard();
    }
    pending.push_back({0, 0, x->width(), x->height()});
    cursorSerial = 0;
    sendCursor();
    return TRUE;
}

void Connection::desktopResize() {
    resizePending = false;
    activated = false;
    encoder.reset();
    rdpSettings* settings = peer->settings;
    Syslog::info("%s: %ux%u to %ux%u", "desktopResize", settings->DesktopWidth, settings->DesktopHeight, x->width(),
                 x->height());
    settings->DesktopWidth = x->width();
    settings->DesktopHeight = x->height();
    // The client confirms with a new activation.
    peer->update->DesktopResize(peer->context);
}

void Connection::sendCursor() {
    if (!activated) {
        return;
    }
    const auto image = x->cursorImage();
    if (!image || image->serial == cursorSerial) {
        return;
    }
    cursorSerial = image->serial;
    rdpPointerUpdate* pointer = peer->update->pointer;
    PointerMasks masks = pointerMasks(*image);
    if (masks.width == 0) {
        const POINTER_SYSTEM_UPDATE hidden{SYSPTR_NULL};
        pointer->PointerSystem(peer->context, &hidden);
        return;
    }
    POINTER_NEW_UPDATE update{};
    update.xorBpp = 32;
    update.colorPtrAttr.cacheIndex = 0;
    update.colorPtrAttr.xPos = std::min<uint32_t>(image->xhot, masks.width - 1);
    update.colorPtrAttr.yPos = std::min<uint32_t>(image->yhot, masks.height - 1);
    update.colorPtrAttr.width = masks.width;
    update.colorPtrAttr.height = masks.height;
    update.colorPtrAttr.lengthXorMask = static_cast<UINT32>(masks.xorMask.size());
    update.colorPtrAttr.xorMaskData = masks.xorMask.data();
    update.colorPtrAttr.lengthAndMask = static_cast<UINT32>(masks.andMask.size());
    update.colorPtrAttr.andMaskData = masks.andMask.data();
    pointer->PointerNew(peer->context, &update);
}

void Connection::sendFrame() {
    const Rect screen{0, 0, x->width(), x->height()};
    const auto rects = mergeRects(pending, screen, maxFrameRects);
    pending.clear();
    if (rects.empty()) {
        return;
    }
    if (!x->capture(rowBands(rects))) {
        Syslog::warning("%s: capture failed", "sendFrame");
        return;
    }
    // A client that has not followed a size change yet gets only what its desktop holds.
    const Rect client{0, 0, static_cast<int32_t>(peer->settings->DesktopWidth),
                      static_cast<int32_t>(peer->settings->DesktopHeight)};
    const auto shown = mergeRects(rects, client, maxFrameRects);
    if (!encoder->send(x->frame(), x->stride(), x->width(), x->height(), shown)) {
        Syslog::warning("%s: update refused by the connection", "sendFrame");
    }
    nextFrame = Clock::now() + std::chrono::microseconds(1'000'000 / config.frameRate);
}

DWORD Connection::xKeycode(uint32_t scancode, bool extended) const {
    if (const uint8_t code = keycodeOf(keycodes, scancode, extended); code != 0) {
        return code;
    }
    return freerdp_keyboard_get_x11_keycode_from_rdp_scancode(scancode, extended ? TRUE : FALSE);
}

void Connection::keyboard(UINT16 flags, UINT16 code) {
    if (!x) {
        return;
    }
    noteInput();
    const KeyAction action = keyAction(flags, static_cast<uint8_t>(code));
    const DWORD keycode = xKeycode(action.scancode, action.extended);
    if (keycode == 0 || keycode > 255) {
        Syslog::debug("%s: no X key for scancode 0x%02x%s", "keyboard", action.scancode,
                      action.extended ? " (extended)" : "");
        return;
    }
    x->fakeKey(static_cast<uint8_t>(keycode), action.press);
    x->flush();
}

// A character the client's keyboard has no key for: typed through a keycode mapped to it for the moment.
void Connection::unicodeKey(UINT16 flags, UINT16 code) {
    if (!x || (flags & KBD_FLAGS_RELEASE)) {
        return;
    }
    noteInput();
    const auto character = unicodeUnits.add(static_cast<char16_t>(code));
    if (!character) {
        return;
    }
    const uint32_t keysym = unicodeKeysym(*character);
    if (keysym == 0 || !x->typeKeysym(keysym)) {
        Syslog::debug("%s: U+%04X not typed", "unicodeKey", static_cast<unsigned>(*character));
    }
}

// The client's lock keys at focus or connection: the session's follow them.
void Connection::synchronize(UINT32 flags) {
    if (!x) {
        return;
    }
    for (const uint8_t scancode : lockKeysToTap(flags, x->modifierState())) {
        const DWORD keycode = xKeycode(scancode, false);
        if (keycode > 0 && keycode < 256) {
            x->fakeKey(static_cast<uint8_t>(keycode), true);
            x->fakeKey(static_cast<uint8_t>(keycode), false);
        }
    }
    x->flush();
}

void Connection::mouse(const std::vector<PointerAction>& actions) {
    if (!x) {
        return;
    }
    noteInput();
    for (const auto& action : actions) {
        switch (action.kind) {
        case PointerAction::Motion:
            x->fakeMotion(action.x, action.y);
            break;
        case PointerAction::Press:
        case PointerAction::Release:
            x->fakeButton(action.button, action.kind == PointerAction::Press);
            break;
        }
    }
    x->flush();
}

void Connection::checkInactivity() {
    if (inactivityLimit == 0 || inactivityReported || !attached) {
        return;
    }
    if (Clock::now() - lastInput > std::chrono::seconds(inactivityLimit)) {
        Syslog::info("%s: display: %u, no input for %us", "checkInactivity", display, inactivityLimit);
        inactivityReported = true;
        bus->transportDisplayInactivityEvent(display);
    }
}

// The login screen's limits end the connection here: the service counts a login screen as left alone only once
// nobody is connected to it, so a client that sits on it is disconnected after its idle time or its whole time.
void Connection::checkLoginLimits() {
    if (!loginScreen) {
        return;
    }
    const bool expired = Clock::now() > loginEnds;
    if (!inactivityReported && !expired) {
        return;
    }
    Syslog::notice("%s: display: %u, %s, ending the connection", "checkLoginLimits", display,
                   expired ? "login time is up" : "idle");
    freerdp_set_error_info(peer->context->rdp, expired ? ERRINFO_LOGON_TIMEOUT : ERRINFO_IDLE_TIMEOUT);
    freerdp_send_error_info(peer->context->rdp);
    terminated = true;
}

void Connection::handleX() {
    if (!x) {
        return;
    }
    auto events = x->dispatch();
    if (events.broken) {
        Syslog::notice("%s: display: %u, X server gone", "handleX", display);
        // The session ended under the client: a logoff as far as it is concerned.
        freerdp_set_error_info(peer->context->rdp, ERRINFO_LOGOFF_BY_USER);
        freerdp_send_error_info(peer->context->rdp);
        terminated = true;
        return;
    }
    pending.insert(pending.end(), events.damage.begin(), events.damage.end());
    if (events.screenResized) {
        if (encoder) {
            encoder->resize(x->width(), x->height());
        }
        if (activated && peer->settings->DesktopResize) {
            resizePending = true;
        }
    }
    if (events.cursorChanged) {
        sendCursor();
    }
}

int Connection::timeoutMs() const {
    int timeout = 1000;
    if (activated && !suppressed && !pending.empty()) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextFrame - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<long long>(wait, 0, timeout));
    }
    return timeout;
}

ClipboardPolicy Connection::clipboardPolicyNow() {
    // Asked each time: an administrator may change the session's policy while the client is connected.
    const auto [bits, limit] = bus->transportDisplayPolicyRedirect(display);
    return clipboardPolicy(bits, limit);
}

void Connection::openClipboard() {
    const ClipboardPolicy policy = clipboardPolicyNow();
    if (!policy.clientToServer && !policy.serverToClient) {
        Syslog::info("%s: session id: %u, clipboard not allowed either way", "openClipboard", sessionId);
        return;
    }
    if (!WTSVirtualChannelManagerIsChannelJoined(vcm, CLIPRDR_SVC_CHANNEL_NAME)) {
        Syslog::debug("%s: the client has no clipboard channel", "openClipboard");
        return;
    }
    cliprdr = cliprdr_server_context_new(vcm);
    if (!cliprdr) {
        Syslog::error("%s: %s failed", "openClipboard", "cliprdr_server_context_new");
        return;
    }
    cliprdr->custom = this;
    cliprdr->rdpcontext = peer->context;
    cliprdr->useLongFormatNames = TRUE;
    cliprdr->streamFileClipEnabled = FALSE;
    cliprdr->fileClipNoFilePaths = TRUE;
    cliprdr->canLockClipData = FALSE;
    cliprdr->autoInitializationSequence = FALSE;
    cliprdr->ClientCapabilities = [](CliprdrServerContext*, const CLIPRDR_CAPABILITIES*) -> UINT {
        return CHANNEL_RC_OK;
    };
    cliprdr->ClientFormatListResponse = [](CliprdrServerContext*, const CLIPRDR_FORMAT_LIST_RESPONSE*) -> UINT {
        return CHANNEL_RC_OK;
    };
    cliprdr->ClientFormatList = [](CliprdrServerContext* context, const CLIPRDR_FORMAT_LIST* list) -> UINT {
        return static_cast<Connection*>(context->custom)->clientFormatList(*list);
    };
    cliprdr->ClientFormatDataRequest = [](CliprdrServerContext* context,
                                          const CLIPRDR_FORMAT_DATA_REQUEST* request) -> UINT {
        return static_cast<Connection*>(context->custom)->clientFormatDataRequest(*request);
    };
    cliprdr->ClientFormatDataResponse = [](CliprdrServerContext* context,
                                           const CLIPRDR_FORMAT_DATA_RESPONSE* response) -> UINT {
        return static_cast<Connection*>(context->custom)->clientFormatDataResponse(*response);
    };
    if (cliprdr->Open(cliprdr) != CHANNEL_RC_OK) {
        Syslog::error("%s: %s failed", "openClipboard", "cliprdr Open");
        closeClipboard();
        return;
    }
    cliprdrEvent = cliprdr->GetEventHandle(cliprdr);

    CLIPRDR_GENERAL_CAPABILITY_SET general{};
    general.capabilitySetType = CB_CAPSTYPE_GENERAL;
    general.capabilitySetLength = CB_CAPSTYPE_GENERAL_LEN;
    general.version = CB_CAPS_VERSION_2;
    general.generalFlags = CB_USE_LONG_FORMAT_NAMES;
    CLIPRDR_CAPABILITIES caps{};
    caps.msgType = CB_CLIP_CAPS;
    caps.cCapabilitiesSets = 1;
    caps.capabilitySets = reinterpret_cast<CLIPRDR_CAPABILITY_SET*>(&general);
    CLIPRDR_MONITOR_READY ready{};
    ready.msgType = CB_MONITOR_READY;
    if (cliprdr->ServerCapabilities(cliprdr, &caps) != CHANNEL_RC_OK ||
        cliprdr->MonitorReady(cliprdr, &ready) != CHANNEL_RC_OK) {
        Syslog::error("%s: %s failed", "openClipboard", "cliprdr initialization");
        closeClipboard();
        return;
    }
    xClipboard = std::make_unique<XClipboard>(*x);
    xClipboard->onOwnerChanged = [this] {
        if (!cliprdr || !clipboardPolicyNow().serverToClient) {
            return;
        }
        CLIPRDR_FORMAT format{formatUnicodeText, nullptr};
        CLIPRDR_FORMAT_LIST list{};
        list.msgType = CB_FORMAT_LIST;
        list.numFormats = 1;
        list.formats = &format;
        cliprdr->ServerFormatList(cliprdr, &list);
    };
    xClipboard->onText = [this](std::optional<std::string> text) { sendClipboardText(std::move(text)); };
    Syslog::info("%s: session id: %u, clipboard: client to server %s, server to client %s, limit: %zu", "openClipboard",
                 sessionId, policy.clientToServer ? "allowed" : "denied", policy.serverToClient ? "allowed" : "denied",
                 policy.limit);
}

void Connection::closeClipboard() {
    xClipboard.reset();
    if (cliprdr) {
        if (cliprdrEvent) {
            cliprdr->Close(cliprdr);
        }
        cliprdr_server_context_free(cliprdr);
        cliprdr = nullptr;
        cliprdrEvent = nullptr;
    }
}

UINT Connection::clientFormatList(const CLIPRDR_FORMAT_LIST& list) {
    CLIPRDR_FORMAT_LIST_RESPONSE response{};
    response.msgType = CB_FORMAT_LIST_RESPONSE;
    response.msgFlags = CB_RESPONSE_OK;
    cliprdr->ServerFormatListResponse(cliprdr, &response);
    std::vector<uint32_t> ids;
    for (UINT32 i = 0; i < list.numFormats; ++i) {
        ids.push_back(list.formats[i].formatId);
    }
    const uint32_t format = pickTextFormat(ids);
    if (format == 0 || !clipboardPolicyNow().clientToServer) {
        return CHANNEL_RC_OK;
    }
    CLIPRDR_FORMAT_DATA_REQUEST request{};
    request.msgType = CB_FORMAT_DATA_REQUEST;
    request.dataLen = 4;
    request.requestedFormatId = format;
    clientTextRequested = true;
    return cliprdr->ServerFormatDataRequest(cliprdr, &request);
}

UINT Connection::clientFormatDataResponse(const CLIPRDR_FORMAT_DATA_RESPONSE& response) {
    if (!clientTextRequested) {
        return CHANNEL_RC_OK;
    }
    clientTextRequested = false;
    const ClipboardPolicy policy = clipboardPolicyNow();
    if (!(response.msgFlags & CB_RESPONSE_OK) || !response.requestedFormatData || !policy.clientToServer) {
        return CHANNEL_RC_OK;
    }
    std::string text = utf16leToUtf8({response.requestedFormatData, response.dataLen}, policy.limit);
    Syslog::debug("%s: client text: %u bytes, %zu bytes to X", "clientFormatDataResponse", response.dataLen,
                  text.size());
    xClipboard->setText(std::move(text));
    return CHANNEL_RC_OK;
}

UINT Connection::clientFormatDataRequest(const CLIPRDR_FORMAT_DATA_REQUEST& request) {
    const ClipboardPolicy policy = clipboardPolicyNow();
    if (request.requestedFormatId != formatUnicodeText || !policy.serverToClient) {
        sendClipboardText(std::nullopt);
        return CHANNEL_RC_OK;
    }
    clientAwaitsText = true;
    clientTextLimit = policy.limit;
    // UTF-8 never takes more bytes than the UTF-16 it becomes, so the limit bounds what is read from X too.
    xClipboard->requestText(policy.limit);
    return CHANNEL_RC_OK;
}

void Connection::sendClipboardText(std::optional<std::string> text) {
    if (!cliprdr) {
        return;
    }
    CLIPRDR_FORMAT_DATA_RESPONSE response{};
    response.msgType = CB_FORMAT_DATA_RESPONSE;
    std::vector<uint8_t> data;
    if (text && clientAwaitsText) {
        data = utf8ToUtf16le(*text, clientTextLimit);
        response.msgFlags = CB_RESPONSE_OK;
        response.dataLen = static_cast<UINT32>(data.size());
        response.requestedFormatData = data.data();
        Syslog::debug("%s: X text: %zu bytes, %zu bytes to the client", "sendClipboardText", text->size(), data.size());
    } else {
        response.msgFlags = CB_RESPONSE_FAIL;
    }
    clientAwaitsText = false;
    cliprdr->ServerFormatDataResponse(cliprdr, &response);
}

void Connection::openDisplayControl() {
    dispTried = true;
    disp = disp_server_context_new(vcm);
    if (!disp) {
        Syslog::error("%s: %s failed", "openDisplayControl", "disp_server_context_new");
        return;
    }
    disp->custom = this;
    disp->rdpcontext = peer->context;
    disp->MaxNumMonitors = 16;
    disp->MaxMonitorAreaFactorA = 8192;
    disp->MaxMonitorAreaFactorB = 8192;
    disp->DispMonitorLayout = [](DispServerContext* context, const DISPLAY_CONTROL_MONITOR_LAYOUT_PDU* pdu) -> UINT {
        auto* self = static_cast<Connection*>(context->custom);
        std::vector<Monitor> monitors;
        for (UINT32 i = 0; i < pdu->NumMonitors; ++i) {
            const auto& m = pdu->Monitors[i];
            monitors.push_back({m.Flags, m.Left, m.Top, m.Width, m.Height, m.PhysicalWidth, m.PhysicalHeight,
                                m.Orientation, m.DesktopScaleFactor, m.DeviceScaleFactor});
        }
        {
            const std::lock_guard lock(self->layoutLock);
            self->newLayout = std::move(monitors);
        }
        SetEvent(self->layoutEvent);
        return CHANNEL_RC_OK;
    };
    if (disp->Open(disp) != CHANNEL_RC_OK) {
        Syslog::info("%s: the client has no display control channel", "openDisplayControl");
        disp_server_context_free(disp);
        disp = nullptr;
        return;
    }
    if (disp->DisplayControlCaps(disp) != CHANNEL_RC_OK) {
        Syslog::warning("%s: %s failed", "openDisplayControl", "DisplayControlCaps");
        return;
    }
    Syslog::debug("%s: display control open", "openDisplayControl");
}

void Connection::applyLayout() {
    ResetEvent(layoutEvent);
    std::optional<std::vector<Monitor>> monitors;
    {
        const std::lock_guard lock(layoutLock);
        monitors.swap(newLayout);
    }
    if (!monitors || !x) {
        return;
    }
    const LayoutRequest request = layoutRequest(*monitors, x->width(), x->height());
    switch (request.kind) {
    case LayoutRequest::Ignore:
        Syslog::debug("%s: layout ignored: %s", "applyLayout", request.reason.c_str());
        return;
    case LayoutRequest::Resize: {
        const bool done = bus->displayResize(display, request.width, request.height, config.startTimeout);
        Syslog::info("%s: display: %u, resize to %ux%u: %s", "applyLayout", display, request.width, request.height,
                     done ? "success" : "failed");
        return;
    }
    case LayoutRequest::Monitors: {
        const bool done = bus->transportDisplayMonitorsChanged(display, request.monitors, config.startTimeout);
        Syslog::info("%s: display: %u, %zu monitors: %s", "applyLayout", display, request.monitors.size(),
                     done ? "success" : "failed");
        return;
    }
    }
}

int Connection::run() {
    if (!setUp()) {
        return 1;
    }
    while (!terminated) {
        HANDLE handles[MAXIMUM_WAIT_OBJECTS];
        DWORD count = peer->GetEventHandles(peer, handles, MAXIMUM_WAIT_OBJECTS - 6);
        if (count == 0) {
            Syslog::error("%s: %s failed", "run", "GetEventHandles");
            break;
        }
        handles[count++] = WTSVirtualChannelManagerGetEventHandle(vcm);
        handles[count++] = signalEvent;
        handles[count++] = layoutEvent;
        if (xEvent) {
            handles[count++] = xEvent;
        }
        if (busEvent) {
            handles[count++] = busEvent;
        }
        if (cliprdrEvent && count < MAXIMUM_WAIT_OBJECTS) {
            handles[count++] = cliprdrEvent;
        }
        const DWORD status = WaitForMultipleObjects(count, handles, FALSE, static_cast<DWORD>(timeoutMs()));
        if (status == WAIT_FAILED) {
            Syslog::error("%s: %s failed", "run", "WaitForMultipleObjects");
            break;
        }
        signalfd_siginfo si{};
        if (read(signalFd, &si, sizeof(si)) == static_cast<ssize_t>(sizeof(si))) {
            Syslog::notice("%s: signal %u, ending the connection", "run", si.ssi_signo);
            // The service ends a connection with SIGTERM when a new one replaces it, when an administrator
            // disconnects the session, or after the idle time this transport reported.
            freerdp_set_error_info(peer->context->rdp, inactivityReported ? ERRINFO_IDLE_TIMEOUT
                                                                          : ERRINFO_DISCONNECTED_BY_OTHER_CONNECTION);
            freerdp_send_error_info(peer->context->rdp);
            break;
        }
        if (!peer->CheckFileDescriptor(peer)) {
            Syslog::info("%s: client %s left", "run", address.c_str());
            break;
        }
        if (exitCode != 0) {
            break;
        }
        if (!WTSVirtualChannelManagerCheckFileDescriptor(vcm)) {
            Syslog::info("%s: %s failed", "run", "WTSVirtualChannelManagerCheckFileDescriptor");
            break;
        }
        if (cliprdr && WaitForSingleObject(cliprdrEvent, 0) == WAIT_OBJECT_0 &&
            cliprdr->CheckEventHandle(cliprdr) != CHANNEL_RC_OK) {
            Syslog::info("%s: clipboard channel closed", "run");
            closeClipboard();
        }
        if (activated && !dispTried && WTSVirtualChannelManagerIsChannelJoined(vcm, "drdynvc") &&
            WTSVirtualChannelManagerGetDrdynvcState(vcm) == DRDYNVC_STATE_READY) {
            openDisplayControl();
        }
        if (WaitForSingleObject(layoutEvent, 0) == WAIT_OBJECT_0) {
            applyLayout();
        }
        if (busEvent && !bus->dispatch()) {
            break;
        }
        if (switchAsked) {
            const DisplaySwitch to = std::move(*switchAsked);
            switchAsked.reset();
            if (loginScreen) {
                switchDisplay(to);
            } else {
                Syslog::warning("%s: display: %d, not on the login screen, switch ignored", "run", to.display);
            }
            if (exitCode != 0) {
                break;
            }
        }
        handleX();
        if (resizePending && x) {
            desktopResize();
        }
        if (activated && !suppressed && !pending.empty() && Clock::now() >= nextFrame) {
            sendFrame();
        }
        checkInactivity();
        checkLoginLimits();
    }
    peer->Disconnect(peer);
    if (attached && bus) {
        bus->transportDisplayShutdown(display);
    }
    if (encoder) {
        Syslog::info("%s: session id: %u, frames: %llu, bytes: %llu", "run", sessionId,
                     static_cast<unsigned long long>(encoder->framesSent()),
                     static_cast<unsigned long long>(encoder->bytesSent()));
    }
    return exitCode;
}

} // namespace

std::string peerAddress(int fd) {
    sockaddr_storage addr{};
    socklen_t len = sizeof(addr);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return "unknown";
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&addr)->sin_addr, text, sizeof(text));
    } else if (addr.ss_family == AF_INET6) {
        // The socket listens on both families; an IPv4 client shows as ::ffff:a.b.c.d there, and
        // administrators look for the plain IPv4 address in the session document and the logs.
        const in6_addr& in6 = reinterpret_cast<sockaddr_in6*>(&addr)->sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&in6)) {
            inet_ntop(AF_INET, &in6.s6_addr[12], text, sizeof(text));
        } else {
            inet_ntop(AF_INET6, &in6, text, sizeof(text));
        }
    } else {
        return "local";
    }
    return text;
}

int serveConnection(int fd, const RdpConfig& config) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    WTSRegisterWtsApiFunctionTable(FreeRDP_InitWtsApi());
    try {
        Connection connection(fd, config);
        return connection.run();
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", "serveConnection", err.what());
        return 1;
    }
}

} // namespace Vexa::Rdp
