// vexa_login_helper: the login screen of the terminal server. The service runs it as the login helper's account in
// a login session, on the display of an RDP transport whose client logged on without a password:
//
//   vexa_login_helper --transport PID
//
// The user types name and password (and, where asked, a domain and a published program); the screen asks the
// service for the user's session over the system bus (vexaSessionRequest: every rule of a login applies, the
// password travels in that call and nowhere else), then asks it to move the transport to the session's display
// (vexaLoginHelperAllowConnectForTransportTo) and ends once the transport has registered there. It also ends when
// its transport does: the login session has nothing left to show.

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <glib-unix.h>
#include <gtk/gtk.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/logger.h"
#include "common/utils.h"
#include "greeter/login_form.h"

namespace {

using namespace Vexa::Greeter;
using Vexa::Syslog;

constexpr const char* busName = "ru.kelvo.vexa";
constexpr const char* objectPath = "/ru/kelvo/vexa";
constexpr const char* interfaceName = "ru.kelvo.vexa";
constexpr int quickCallMs = 10'000;
// A login may first wait out the throttle of wrong passwords (30 s at most by default), then a session start.
constexpr int loginCallMs = 180'000;
// How long the transport may take to register with the user's session once it was told to move there.
constexpr unsigned switchTimeoutSec = 20;

// The on-screen keyboard's rows of characters; its last row (shift, space, backspace, enter) is built apart.
constexpr std::string_view keyRows[] = {"1234567890-=", "qwertyuiop[]", "asdfghjkl;'\\", "zxcvbnm,./@_"};
constexpr std::string_view shiftedRows[] = {"!\"#$%^&*()_+", "QWERTYUIOP{}", "ASDFGHJKL:~|", "ZXCVBNM<>?@_"};

constexpr const char* css = R"(
window#greeter { background-image: linear-gradient(to bottom, #14304a, #0b1a29); }
box.card { background-color: #f3f5f7; border-radius: 12px; padding: 36px 44px; }
box.card label { color: #1b2733; }
label.server { font-size: 24px; font-weight: bold; }
label.hint { color: #55626e; }
box.card label.refusal { color: #b3261e; font-weight: bold; }
box.card label.status { color: #14304a; }
button.login { background-image: none; background-color: #1f5f99; color: #ffffff; font-weight: bold;
               padding: 6px 28px; border-radius: 6px; }
button.login label { color: #ffffff; }
box.keyboard { background-color: rgba(243, 245, 247, 0.92); border-radius: 10px; padding: 10px; }
box.keyboard button { min-width: 30px; min-height: 30px; padding: 2px 6px; }
)";

struct Greeter {
    Options options;
    GDBusConnection* bus = nullptr;
    GtkWidget* window = nullptr;
    GtkWidget* user = nullptr;
    GtkWidget* password = nullptr;
    GtkWidget* domain = nullptr;
    GtkWidget* session = nullptr; // the published programs to choose from, when the service shows them
    GtkWidget* button = nullptr;
    GtkWidget* spinner = nullptr;
    GtkWidget* message = nullptr;
    // The on-screen keyboard types into the entry that last had the focus.
    GtkWidget* typingInto = nullptr;
    std::vector<GtkWidget*> characterKeys;
    bool shifted = false;
    // The user's session while the transport moves to it.
    uint32_t sessionId = 0;
    guint connectedWatch = 0;
    guint switchTimer = 0;
    int exitStatus = EXIT_SUCCESS;
};

void finish(Greeter& g, int status) {
    g.exitStatus = status;
    gtk_main_quit();
}

std::string replyType(const BusMethod& method) {
    return "(" + std::string(method.out) + ")";
}

// The arguments of a call, built from the method's own signature in the table.
template <typename... Args>
GVariant* arguments(const BusMethod& method, Args... args) {
    const std::string format = "(" + std::string(method.in) + ")";
    return g_variant_new(format.c_str(), args...);
}

void logCallFailure(const char* method, const char* call, GError* error) {
    Syslog::error("%s: %s failed, error: %s, code: %d", method, call, error->message, error->code);
    g_error_free(error);
}

// A quick call answered at once; null when it failed (logged).
GVariant* callNow(Greeter& g, const BusMethod& method, GVariant* args) {
    GError* error = nullptr;
    const std::string type = replyType(method);
    GVariant* reply =
        g_dbus_connection_call_sync(g.bus, busName, objectPath, interfaceName, method.name.data(), args,
                                    G_VARIANT_TYPE(type.c_str()), G_DBUS_CALL_FLAGS_NONE, quickCallMs, nullptr, &error);
    if (!reply) {
        logCallFailure(method.name.data(), "g_dbus_connection_call_sync", error);
    }
    return reply;
}

bool policy(Greeter& g, const char* method) {
    GVariant* reply = callNow(g, busMethod(method), nullptr);
    if (!reply) {
        return false;
    }
    gboolean value = FALSE;
    g_variant_get(reply, "(b)", &value);
    g_variant_unref(reply);
    return value != FALSE;
}

std::vector<std::string> publishedPrograms(Greeter& g) {
    std::vector<std::string> names;
    GVariant* reply = callNow(g, busMethod("vexaProgramList"), nullptr);
    if (!reply) {
        return names;
    }
    GVariantIter* iter = nullptr;
    const gchar* name = nullptr;
    g_variant_get(reply, "(as)", &iter);
    while (g_variant_iter_loop(iter, "&s", &name)) {
        names.emplace_back(name);
    }
    g_variant_iter_free(iter);
    g_variant_unref(reply);
    return names;
}

void say(Greeter& g, const std::string& text, const char* kind) {
    GtkStyleContext* style = gtk_widget_get_style_context(g.message);
    gtk_style_context_remove_class(style, "refusal");
    gtk_style_context_remove_class(style, "status");
    gtk_style_context_add_class(style, kind);
    gtk_label_set_text(GTK_LABEL(g.message), text.c_str());
}

void setBusy(Greeter& g, bool busy) {
    for (GtkWidget* widget : {g.user, g.password, g.domain, g.session, g.button}) {
        if (widget) {
            gtk_widget_set_sensitive(widget, !busy);
        }
    }
    if (busy) {
        gtk_spinner_start(GTK_SPINNER(g.spinner));
    } else {
        gtk_spinner_stop(GTK_SPINNER(g.spinner));
    }
}

void clearPassword(Greeter& g) {
    gtk_entry_set_text(GTK_ENTRY(g.password), "");
}

void refuse(Greeter& g, const std::string& text, GtkWidget* focus) {
    setBusy(g, false);
    clearPassword(g);
    say(g, text, "refusal");
    gtk_widget_grab_focus(focus);
}

void stopWaitingForSwitch(Greeter& g) {
    if (g.connectedWatch) {
        g_dbus_connection_signal_unsubscribe(g.bus, g.connectedWatch);
        g.connectedWatch = 0;
    }
    if (g.switchTimer) {
        g_source_remove(g.switchTimer);
        g.switchTimer = 0;
    }
}

void onSessionConnected(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* params,
                        gpointer data) {
    auto& g = *static_cast<Greeter*>(data);
    guint32 session = 0;
    guint32 pid = 0;
    const gchar* address = nullptr;
    g_variant_get(params, "(uu&s)", &session, &pid, &address);
    if (session != g.sessionId || static_cast<pid_t>(pid) != g.options.transport) {
        return;
    }
    Syslog::info("%s: session id: %u, transport pid: %u moved there", "onSessionConnected", session, pid);
    stopWaitingForSwitch(g);
    finish(g, EXIT_SUCCESS);
}

gboolean onSwitchTimeout(gpointer data) {
    auto& g = *static_cast<Greeter*>(data);
    g.switchTimer = 0;
    Syslog::error("%s: session id: %u, transport pid: %d did not move within %u s", "onSwitchTimeout", g.sessionId,
                  g.options.transport, switchTimeoutSec);
    stopWaitingForSwitch(g);
    refuse(g, "Your session is ready, but this connection could not be moved to it. Log in again.", g.password);
    return G_SOURCE_REMOVE;
}

void onSwitchAsked(GObject* source, GAsyncResult* result, gpointer data) {
    auto& g = *static_cast<Greeter*>(data);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
        logCallFailure("vexaLoginHelperAllowConnectForTransportTo", "g_dbus_connection_call_finish", error);
        stopWaitingForSwitch(g);
        refuse(g, refusalText(0), g.password);
        return;
    }
    g_variant_unref(reply);
}

// The user's session runs: the transport is asked to move to its display, and the screen waits until it has.
void moveTransport(Greeter& g, uint32_t session) {
    GVariant* reply =
        callNow(g, busMethod("vexaSessionInfoJson"), arguments(busMethod("vexaSessionInfoJson"), session));
    const gchar* report = nullptr;
    if (reply) {
        g_variant_get(reply, "(&s)", &report);
    }
    const auto shown = report ? sessionDisplay(report) : std::nullopt;
    if (reply) {
        g_variant_unref(reply);
    }
    if (!shown) {
        Syslog::error("%s: session id: %u, no display in its report", "moveTransport", session);
        refuse(g, refusalText(0), g.password);
        return;
    }
    g.sessionId = session;
    // Listened to before the transport is told: its registration cannot come first.
    g.connectedWatch =
        g_dbus_connection_signal_subscribe(g.bus, busName, interfaceName, "signalSessionConnected", objectPath, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onSessionConnected, &g, nullptr);
    g.switchTimer = g_timeout_add_seconds(switchTimeoutSec, onSwitchTimeout, &g);
    Syslog::info("%s: session id: %u, display: %d, transport pid: %d", "moveTransport", session, shown->display,
                 g.options.transport);
    const auto& method = busMethod("vexaLoginHelperAllowConnectForTransportTo");
    g_dbus_connection_call(g.bus, busName, objectPath, interfaceName, method.name.data(),
                           arguments(method, g.options.transport, shown->display, shown->xauthfile.c_str()),
                           G_VARIANT_TYPE(replyType(method).c_str()), G_DBUS_CALL_FLAGS_NONE, quickCallMs, nullptr,
                           onSwitchAsked, &g);
}

void onSessionReply(GObject* source, GAsyncResult* result, gpointer data) {
    auto& g = *static_cast<Greeter*>(data);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
        logCallFailure("vexaSessionRequest", "g_dbus_connection_call_finish", error);
        refuse(g, refusalText(0), g.password);
        return;
    }
    gint32 code = 0;
    g_variant_get(reply, "(i)", &code);
    g_variant_unref(reply);
    Syslog::notice("%s: user: `%s', reply: %d", "onSessionReply", gtk_entry_get_text(GTK_ENTRY(g.user)), code);
    if (code <= 0) {
        refuse(g, refusalText(code), code == -1 || code == -4 ? g.password : g.user);
        return;
    }
    say(g, "Opening your session...", "status");
    moveTransport(g, static_cast<uint32_t>(code));
}

void submit(Greeter& g) {
    if (!gtk_widget_get_sensitive(g.button)) {
        return;
    }
    LoginRequest request;
    request.user = trimmedUserName(gtk_entry_get_text(GTK_ENTRY(g.user)));
    if (request.user.empty()) {
        say(g, "Enter your user name.", "refusal");
        gtk_widget_grab_focus(g.user);
        return;
    }
    request.password = gtk_entry_get_text(GTK_ENTRY(g.password));
    request.domain = trimmedUserName(gtk_entry_get_text(GTK_ENTRY(g.domain)));
    if (g.session) {
        if (const gchar* id = gtk_combo_box_get_active_id(GTK_COMBO_BOX(g.session))) {
            request.program = id;
        }
    }
    GdkWindow* root = gdk_screen_get_root_window(gtk_widget_get_screen(g.window));
    request.width = static_cast<uint32_t>(gdk_window_get_width(root));
    request.height = static_cast<uint32_t>(gdk_window_get_height(root));
    std::string json = sessionRequestJson(request);
    explicit_bzero(request.password.data(), request.password.size());
    clearPassword(g);
    Syslog::notice("%s: user: `%s', domain: `%s', program: `%s', size: %ux%u", "submit", request.user.c_str(),
                   request.domain.c_str(), request.program.c_str(), request.width, request.height);

    setBusy(g, true);
    say(g, "Logging in...", "status");
    const auto& method = busMethod("vexaSessionRequest");
    GVariant* args = arguments(method, json.c_str());
    explicit_bzero(json.data(), json.size());
    g_dbus_connection_call(g.bus, busName, objectPath, interfaceName, method.name.data(), args,
                           G_VARIANT_TYPE(replyType(method).c_str()), G_DBUS_CALL_FLAGS_NONE, loginCallMs, nullptr,
                           onSessionReply, &g);
}

// The window covers the whole screen (there is no window manager), also after the transport resized it.
void fitToScreen(Greeter& g) {
    GdkWindow* root = gdk_screen_get_root_window(gtk_widget_get_screen(g.window));
    gtk_window_move(GTK_WINDOW(g.window), 0, 0);
    gtk_window_resize(GTK_WINDOW(g.window), gdk_window_get_width(root), gdk_window_get_height(root));
}

void pressKey(Greeter& g, GtkWidget* key) {
    GtkWidget* entry = g.typingInto ? g.typingInto : g.user;
    if (!gtk_widget_get_sensitive(entry)) {
        return;
    }
    const char* text = gtk_button_get_label(GTK_BUTTON(key));
    const std::string_view name = static_cast<const char*>(g_object_get_data(G_OBJECT(key), "vexa-key"));
    GtkEditable* editable = GTK_EDITABLE(entry);
    gint position = gtk_editable_get_position(editable);
    if (name == "shift") {
        g.shifted = !g.shifted;
        for (size_t row = 0, k = 0; row < std::size(keyRows); ++row) {
            for (size_t i = 0; i < keyRows[row].size(); ++i, ++k) {
                const std::string label(1, (g.shifted ? shiftedRows : keyRows)[row][i]);
                gtk_button_set_label(GTK_BUTTON(g.characterKeys[k]), label.c_str());
            }
        }
        return;
    }
    if (name == "backspace") {
        if (position > 0) {
            gtk_editable_delete_text(editable, position - 1, position);
        }
    } else if (name == "enter") {
        gtk_widget_activate(entry);
    } else {
        gtk_editable_insert_text(editable, name == "space" ? " " : text, -1, &position);
        gtk_editable_set_position(editable, position);
    }
    gtk_widget_grab_focus(entry);
}

GtkWidget* keyButton(Greeter& g, const char* label, const char* name) {
    GtkWidget* key = gtk_button_new_with_label(label);
    // Clicking a key leaves the focus in the entry it types into.
    gtk_widget_set_can_focus(key, FALSE);
    g_object_set_data(G_OBJECT(key), "vexa-key", const_cast<char*>(name));
    g_signal_connect(
        key, "clicked",
        G_CALLBACK(+[](GtkWidget* widget, gpointer data) { pressKey(*static_cast<Greeter*>(data), widget); }), &g);
    return key;
}

GtkWidget* onScreenKeyboard(Greeter& g) {
    GtkWidget* keyboard = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    gtk_style_context_add_class(gtk_widget_get_style_context(keyboard), "keyboard");
    gtk_widget_set_halign(keyboard, GTK_ALIGN_CENTER);
    for (const auto row : keyRows) {
        GtkWidget* line = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
        gtk_widget_set_halign(line, GTK_ALIGN_CENTER);
        for (const char c : row) {
            const std::string label(1, c);
            GtkWidget* key = keyButton(g, label.c_str(), "character");
            g.characterKeys.push_back(key);
            gtk_box_pack_start(GTK_BOX(line), key, FALSE, FALSE, 0);
        }
        gtk_box_pack_start(GTK_BOX(keyboard), line, FALSE, FALSE, 0);
    }
    GtkWidget* line = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
    gtk_widget_set_halign(line, GTK_ALIGN_CENTER);
    gtk_box_pack_start(GTK_BOX(line), keyButton(g, "Shift", "shift"), FALSE, FALSE, 0);
    GtkWidget* space = keyButton(g, "Space", "space");
    gtk_widget_set_size_request(space, 260, -1);
    gtk_box_pack_start(GTK_BOX(line), space, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(line), keyButton(g, "Backspace", "backspace"), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(line), keyButton(g, "Enter", "enter"), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(keyboard), line, FALSE, FALSE, 0);
    return keyboard;
}

GtkWidget* label(const char* text, const char* kind) {
    GtkWidget* widget = gtk_label_new(text);
    if (kind) {
        gtk_style_context_add_class(gtk_widget_get_style_context(widget), kind);
    }
    return widget;
}

GtkWidget* entry(Greeter& g, const char* placeholder) {
    GtkWidget* widget = gtk_entry_new();
    gtk_entry_set_width_chars(GTK_ENTRY(widget), 28);
    if (placeholder) {
        gtk_entry_set_placeholder_text(GTK_ENTRY(widget), placeholder);
    }
    g_signal_connect(widget, "focus-in-event", G_CALLBACK(+[](GtkWidget* w, GdkEvent*, gpointer data) -> gboolean {
                         static_cast<Greeter*>(data)->typingInto = w;
                         return FALSE;
                     }),
                     &g);
    return widget;
}

void addRow(GtkWidget* grid, int row, const char* mnemonic, GtkWidget* field) {
    GtkWidget* name = gtk_label_new_with_mnemonic(mnemonic);
    gtk_label_set_mnemonic_widget(GTK_LABEL(name), field);
    gtk_widget_set_halign(name, GTK_ALIGN_END);
    gtk_grid_attach(GTK_GRID(grid), name, 0, row, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), field, 1, row, 1, 1);
}

void build(Greeter& g, bool showSessions, bool showKeyboard) {
    GtkCssProvider* provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, css, -1, nullptr);
    gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(provider),
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(provider);

    g.window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_widget_set_name(g.window, "greeter");
    gtk_window_set_title(GTK_WINDOW(g.window), "Log in");
    gtk_window_set_decorated(GTK_WINDOW(g.window), FALSE);
    fitToScreen(g);
    g_signal_connect(gtk_widget_get_screen(g.window), "size-changed",
                     G_CALLBACK(+[](GdkScreen*, gpointer data) { fitToScreen(*static_cast<Greeter*>(data)); }), &g);

    GtkWidget* outer = gtk_box_new(GTK_ORIENTATION_VERTICAL, 24);
    gtk_widget_set_halign(outer, GTK_ALIGN_CENTER);
    gtk_widget_set_valign(outer, GTK_ALIGN_CENTER);
    gtk_container_add(GTK_CONTAINER(g.window), outer);

    GtkWidget* card = gtk_box_new(GTK_ORIENTATION_VERTICAL, 14);
    gtk_style_context_add_class(gtk_widget_get_style_context(card), "card");
    gtk_widget_set_halign(card, GTK_ALIGN_CENTER);
    gtk_box_pack_start(GTK_BOX(outer), card, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(card), label(g_get_host_name(), "server"), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(card), label("Log in with your account on this server.", "hint"), FALSE, FALSE, 0);

    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_row_spacing(GTK_GRID(grid), 10);
    gtk_grid_set_column_spacing(GTK_GRID(grid), 12);
    g.user = entry(g, nullptr);
    g.password = entry(g, nullptr);
    gtk_entry_set_visibility(GTK_ENTRY(g.password), FALSE);
    gtk_entry_set_input_purpose(GTK_ENTRY(g.password), GTK_INPUT_PURPOSE_PASSWORD);
    g.domain = entry(g, "optional");
    addRow(grid, 0, "_User name", g.user);
    addRow(grid, 1, "_Password", g.password);
    addRow(grid, 2, "_Domain", g.domain);
    if (showSessions) {
        g.session = gtk_combo_box_text_new();
        gtk_combo_box_text_append(GTK_COMBO_BOX_TEXT(g.session), "", "Desktop");
        for (const auto& program : publishedPrograms(g)) {
            gtk_combo_box_text_append(GTK_COMBO_BOX_TEXT(g.session), program.c_str(), program.c_str());
        }
        gtk_combo_box_set_active(GTK_COMBO_BOX(g.session), 0);
        addRow(grid, 3, "_Session", g.session);
    }
    gtk_box_pack_start(GTK_BOX(card), grid, FALSE, FALSE, 0);

    g.message = label("", "status");
    gtk_label_set_line_wrap(GTK_LABEL(g.message), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(g.message), 48);
    gtk_widget_set_size_request(g.message, -1, 40);
    gtk_box_pack_start(GTK_BOX(card), g.message, FALSE, FALSE, 0);

    GtkWidget* actions = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
    gtk_widget_set_halign(actions, GTK_ALIGN_END);
    g.spinner = gtk_spinner_new();
    g.button = gtk_button_new_with_mnemonic("_Log in");
    gtk_style_context_add_class(gtk_widget_get_style_context(g.button), "login");
    gtk_box_pack_start(GTK_BOX(actions), g.spinner, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(actions), g.button, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(card), actions, FALSE, FALSE, 0);

    if (showKeyboard) {
        gtk_box_pack_start(GTK_BOX(outer), onScreenKeyboard(g), FALSE, FALSE, 0);
    }

    // Keyboard only: Enter in the name goes on to the password, Enter there (or in the domain) logs in, Escape
    // starts over with an empty password.
    g_signal_connect(g.user, "activate", G_CALLBACK(+[](GtkWidget*, gpointer data) {
                         gtk_widget_grab_focus(static_cast<Greeter*>(data)->password);
                     }),
                     &g);
    for (GtkWidget* field : {g.password, g.domain}) {
        g_signal_connect(field, "activate",
                         G_CALLBACK(+[](GtkWidget*, gpointer data) { submit(*static_cast<Greeter*>(data)); }), &g);
    }
    g_signal_connect(g.button, "clicked",
                     G_CALLBACK(+[](GtkWidget*, gpointer data) { submit(*static_cast<Greeter*>(data)); }), &g);
    g_signal_connect(g.window, "key-press-event", G_CALLBACK(+[](GtkWidget*, GdkEventKey* key, gpointer data) {
                         auto& self = *static_cast<Greeter*>(data);
                         if (key->keyval != GDK_KEY_Escape || !gtk_widget_get_sensitive(self.button)) {
                             return gboolean{FALSE};
                         }
                         clearPassword(self);
                         say(self, "", "status");
                         gtk_widget_grab_focus(self.user);
                         return gboolean{TRUE};
                     }),
                     &g);

    gtk_widget_show_all(g.window);
    gtk_widget_grab_focus(g.user);
    // No window manager gives the focus: the window takes it.
    gtk_window_present(GTK_WINDOW(g.window));
}

// The report of the session whose display this screen is on; empty when there is none.
std::string ownReport(Greeter& g) {
    const auto display = displayNumber(g_getenv("DISPLAY") ? g_getenv("DISPLAY") : "");
    GVariant* reply = display ? callNow(g, busMethod("vexaSessions"), nullptr) : nullptr;
    if (!reply) {
        return {};
    }
    std::string found;
    GVariantIter* iter = nullptr;
    const gchar* user = nullptr;
    guint32 id = 0;
    g_variant_get(reply, "(a(su))", &iter);
    while (found.empty() && g_variant_iter_loop(iter, "(&su)", &user, &id)) {
        const auto& method = busMethod("vexaSessionInfoJson");
        GVariant* info = callNow(g, method, arguments(method, id));
        const gchar* text = nullptr;
        if (info) {
            g_variant_get(info, "(&s)", &text);
            const auto shown = sessionDisplay(text);
            if (shown && shown->display == *display) {
                found = text;
            }
            g_variant_unref(info);
        }
    }
    g_variant_iter_free(iter);
    g_variant_unref(reply);
    return found;
}

// The login session's own limits, kept here too: a screen whose transport never came, or never ends, does not stay.
void limitLifetime(Greeter& g) {
    const uint32_t seconds = screenLifetime(ownReport(g));
    if (seconds == 0) {
        Syslog::warning("%s: no limits of the login session found", "limitLifetime");
        return;
    }
    Syslog::info("%s: the login screen ends after %u s at most", "limitLifetime", seconds);
    g_timeout_add_seconds(
        seconds,
        +[](gpointer data) -> gboolean {
            Syslog::notice("%s: the login screen's time is up", "limitLifetime");
            finish(*static_cast<Greeter*>(data), EXIT_SUCCESS);
            return G_SOURCE_REMOVE;
        },
        &g);
}

// The transport's end ends the screen: nobody can see it any more.
bool watchTransport(Greeter& g) {
    // A pidfd is close-on-exec from the start, and names this process even after its pid is reused.
    const long fd = syscall(SYS_pidfd_open, g.options.transport, 0);
    if (fd < 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "watchTransport", "pidfd_open",
                      Vexa::Utils::errnoText(err).c_str(), err);
        return false;
    }
    g_unix_fd_add(
        static_cast<int>(fd), G_IO_IN,
        +[](gint, GIOCondition, gpointer data) -> gboolean {
            auto& self = *static_cast<Greeter*>(data);
            Syslog::notice("%s: transport pid: %d ended", "watchTransport", self.options.transport);
            finish(self, EXIT_SUCCESS);
            return G_SOURCE_REMOVE;
        },
        &g);
    return true;
}

} // namespace

#if defined(__SANITIZE_ADDRESS__)
// A sanitizer build checks this program's leaks, but not fontconfig's: GTK draws its text through fontconfig, whose
// caches of fonts and patterns live as long as the process and are never freed.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer runtime's hook
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
// NOLINTNEXTLINE(bugprone-reserved-identifier): as above
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
#endif

int main(int argc, char** argv) {
    const Syslog log("vexa_login_helper");
    Syslog::setDebugLevel(Vexa::DebugLevel::Info);
    std::vector<std::string_view> args(argv + 1, argv + argc);
    std::string problem;
    const auto options = parseArguments(args, problem);
    if (!options) {
        Syslog::error("%s: %s; usage: vexa_login_helper --transport PID", "main", problem.c_str());
        return 2;
    }
    // Nothing here speaks to an accessibility bus; GTK would look for one on the session bus and warn.
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    if (!gtk_init_check(&argc, &argv)) {
        Syslog::error("%s: %s failed, display: `%s'", "main", "gtk_init_check", g_getenv("DISPLAY"));
        return 1;
    }

    Greeter g;
    g.options = *options;
    GError* error = nullptr;
    g.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!g.bus) {
        logCallFailure("main", "g_bus_get_sync", error);
        return 1;
    }
    g_dbus_connection_set_exit_on_close(g.bus, FALSE);
    if (!watchTransport(g)) {
        return 1;
    }
    limitLifetime(g);
    const bool showSessions = policy(g, "vexaLoginHelperPolicyShowSessions");
    const bool showKeyboard = policy(g, "vexaLoginHelperPolicyShowKeyboard");
    Syslog::info("%s: transport pid: %d, display: `%s', sessions: %s, keyboard: %s", "main", g.options.transport,
                 g_getenv("DISPLAY"), showSessions ? "shown" : "hidden", showKeyboard ? "shown" : "hidden");
    g_unix_signal_add(
        SIGTERM,
        +[](gpointer data) -> gboolean {
            finish(*static_cast<Greeter*>(data), EXIT_SUCCESS);
            return G_SOURCE_REMOVE;
        },
        &g);

    build(g, showSessions, showKeyboard);
    gtk_main();
    stopWaitingForSwitch(g);
    g_object_unref(g.bus);
    Syslog::info("%s: done, status: %d", "main", g.exitStatus);
    return g.exitStatus;
}
