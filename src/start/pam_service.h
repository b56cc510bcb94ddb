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
    void setItem(int type, std::string_view value);
    bool openSession();
    void closeSession();
    std::list<std::string> getEnvironments();

    std::string getLogin() const { return login; }
    std::string getPassword() const { return password; }
    std::string getService() const { return service; }
    pam_handle_t* getHandle() const { return handle; }

private:
    pam_handle_t* handle = nullptr;
    std::string login;
    std::string password;
    std::string service;
    pam_conv conversation{};
    int status = PAM_SUCCESS;
    bool sessionOpened = false;
};

} // namespace Vexa
