#pragma once

// One PAM transaction for one user, answered non-interactively from the login and password it was given.
// Belongs to the thread that created it. The password is wiped from memory when the object is destroyed.

#include <list>
#include <stdexcept>
#include <string>
#include <string_view>

#include <security/pam_appl.h>

namespace Vexa {

class pam_error : public std::runtime_error {
public:
    explicit pam_error(const std::string& what) : std::runtime_error(what) {}
};

// The conversation: echoed prompts get the login, hidden prompts the password, texts no answer.
// appdata is the PamService whose transaction asks; answers are written to (*responses)[i].
int auth_conv(int count, const struct pam_message** messages, struct pam_response** responses, void* appdata);

class PamService {
public:
    // Starts the transaction; throws pam_error("PamService") when PAM refuses.
    PamService(std::string_view service, std::string_view login, std::string_view password);
    ~PamService();

    PamService(const PamService&) = delete;
    PamService& operator=(const PamService&) = delete;

    bool checkAuthenticate();
    // Account check; an expired password is changed through the conversation when PAM asks for it.
    bool validateAccount();
    // String items only (PAM_TTY, PAM_XDISPLAY, ...); PAM_CONV, PAM_FAIL_DELAY and PAM_XAUTHDATA are refused.
    void setItem(int type, std::string_view value);
    // Establishes the credentials, then opens the session; true without a second opening when already open.
    bool openSession();
    void closeSession();
    std::list<std::string> getEnvironments();

    std::string getLogin() const { return login; }
    std::string getPassword() const { return password; }
    std::string getService() const { return service; }
    pam_handle_t* getHandle() const { return handle; }

private:
    // Reads login and password in place, so that the password is not copied outside this object.
    friend int auth_conv(int count, const struct pam_message** messages, struct pam_response** responses,
                         void* appdata);

    pam_handle_t* handle = nullptr;
    std::string login;
    std::string password;
    std::string service;
    pam_conv conversation{};
    int status = PAM_SUCCESS;
    bool sessionOpened = false;
};

} // namespace Vexa
