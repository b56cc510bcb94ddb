#include "pam_service.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "common/logger.h"

namespace Vexa {

namespace {

void logFailure(const char* operation, const char* call, pam_handle_t* handle, int code) {
    Syslog::error("%s: %s failed, current uid: %u, error: %s, code: %d", operation, call, getuid(),
                  pam_strerror(handle, code), code);
}

void wipe(char* text) {
    if (text) {
        explicit_bzero(text, std::strlen(text));
    }
}

void wipe(std::string& text) {
    explicit_bzero(text.data(), text.size());
}

// Items PAM reads as something other than a C string; a string passed as one of them would be used as a
// function or structure pointer.
bool isStringItem(int type) {
    return type != PAM_CONV && type != PAM_FAIL_DELAY && type != PAM_XAUTHDATA;
}

} // namespace

// Linux-PAM lays the messages out as an array of pointers and the answers as one array of count structures
// (reached as (*responses)[i]); with a single message both layouts coincide, with several only this one is right.
int auth_conv(int count, const struct pam_message** messages, struct pam_response** responses, void* appdata) {
    if (!messages || !responses || !appdata || count <= 0 || count > PAM_MAX_NUM_MSG) {
        return PAM_CONV_ERR;
    }
    const auto* owner = static_cast<const PamService*>(appdata);
    const bool allocated = *responses == nullptr;
    if (allocated) {
        *responses = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
        if (!*responses) {
            return PAM_BUF_ERR;
        }
    }
    pam_response* answers = *responses;

    // Callers free no responses of a failed call: every answer made so far (a password among them) goes here.
    auto fail = [&](int upTo, int code) {
        for (int i = 0; i < upTo; ++i) {
            if (messages[i] &&
                (messages[i]->msg_style == PAM_PROMPT_ECHO_ON || messages[i]->msg_style == PAM_PROMPT_ECHO_OFF)) {
                wipe(answers[i].resp);
                std::free(answers[i].resp);
                answers[i].resp = nullptr;
            }
        }
        if (allocated) {
            std::free(answers);
            *responses = nullptr;
        }
        return code;
    };

    for (int i = 0; i < count; ++i) {
        const pam_message* message = messages[i];
        if (!message) {
            return fail(i, PAM_CONV_ERR);
        }
        const int style = message->msg_style;
        Syslog::info("PAM request msg: `%s', prompt echo: `%s'", message->msg ? message->msg : "",
                     style == PAM_PROMPT_ECHO_ON ? "on" : "off");
        const std::string* answer = style == PAM_PROMPT_ECHO_ON    ? &owner->login
                                    : style == PAM_PROMPT_ECHO_OFF ? &owner->password
                                                                   : nullptr;
        if (!answer) {
            continue;
        }
        answers[i].resp_retcode = 0;
        answers[i].resp = strdup(answer->c_str());
        if (!answers[i].resp) {
            return fail(i, PAM_BUF_ERR);
        }
    }
    return PAM_SUCCESS;
}

PamService::PamService(std::string_view service, std::string_view login, std::string_view password)
    : login(login), password(password), service(service), conversation{auth_conv, this} {
    status = pam_start(this->service.c_str(), this->login.c_str(), &conversation, &handle);
    if (status != PAM_SUCCESS) {
        if (handle) {
            logFailure("PamService", "pam_start", handle, status);
            pam_end(handle, status);
            handle = nullptr;
        }
        // The destructor does not run for an object whose constructor throws.
        wipe(this->password);
        throw pam_error("PamService");
    }
}

PamService::~PamService() {
    if (handle) {
        if (sessionOpened) {
            status = pam_close_session(handle, 0);
            status = pam_setcred(handle, PAM_DELETE_CRED);
        }
        pam_end(handle, status);
    }
    wipe(password);
}

bool PamService::checkAuthenticate() {
    if (!handle) {
        return false;
    }
    status = pam_authenticate(handle, 0);
    if (status != PAM_SUCCESS) {
        logFailure("checkAuthenticate", "pam_authenticate", handle, status);
        return false;
    }
    return true;
}

bool PamService::validateAccount() {
    if (!handle) {
        return false;
    }
    status = pam_acct_mgmt(handle, 0);
    if (status == PAM_SUCCESS) {
        return true;
    }
    if (status == PAM_NEW_AUTHTOK_REQD) {
        status = pam_chauthtok(handle, PAM_CHANGE_EXPIRED_AUTHTOK);
        if (status == PAM_SUCCESS) {
            return true;
        }
        logFailure("validateAccount", "pam_chauthtok", handle, status);
        return false;
    }
    logFailure("validateAccount", "pam_acct_mgmt", handle, status);
    return false;
}

void PamService::setItem(int type, std::string_view value) {
    if (!handle) {
        return;
    }
    if (!isStringItem(type)) {
        status = PAM_BAD_ITEM;
        return;
    }
    const std::string text(value);
    status = pam_set_item(handle, type, text.c_str());
}

bool PamService::openSession() {
    if (!handle) {
        return false;
    }
    if (sessionOpened) {
        return true;
    }
    status = pam_setcred(handle, PAM_ESTABLISH_CRED);
    if (status != PAM_SUCCESS) {
        logFailure("openSession", "pam_setcred", handle, status);
        return false;
    }
    status = pam_open_session(handle, 0);
    if (status != PAM_SUCCESS) {
        logFailure("openSession", "pam_open_session", handle, status);
        status = pam_setcred(handle, PAM_DELETE_CRED);
        return false;
    }
    sessionOpened = true;
    return true;
}

void PamService::closeSession() {
    if (!handle || !sessionOpened) {
        return;
    }
    status = pam_close_session(handle, 0);
    if (status != PAM_SUCCESS) {
        // The flag stays set: the destructor tries again.
        logFailure("closeSession", "pam_close_session", handle, status);
        return;
    }
    status = pam_setcred(handle, PAM_DELETE_CRED);
    if (status != PAM_SUCCESS) {
        logFailure("closeSession", "pam_setcred", handle, status);
    }
    sessionOpened = false;
}

std::list<std::string> PamService::getEnvironments() {
    std::list<std::string> result;
    if (!handle) {
        return result;
    }
    char** list = pam_getenvlist(handle);
    if (!list) {
        return result;
    }
    for (char** entry = list; *entry; ++entry) {
        result.emplace_back(*entry);
        std::free(*entry);
    }
    std::free(list);
    return result;
}

} // namespace Vexa
