#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/logger.h"
#include "start/pam_service.h"

using namespace Vexa;
using namespace std::string_literals;

namespace {

// When non-negative: the number of strdup calls that still succeed before one fails.
std::atomic<int> strdupFailAt{-1};
constexpr const char* login = "e2e-alice";
constexpr const char* password = "Pa55-w0rd!";
// Present on every Linux-PAM system; these tests never run its modules.
constexpr const char* anyService = "other";
const pam_message messages[] = {{PAM_PROMPT_ECHO_ON, "login: "},
                                {PAM_TEXT_INFO, "Welcome"},
                                {PAM_PROMPT_ECHO_OFF, "Password: "},
                                {PAM_PROMPT_ECHO_OFF, "Again: "}};
const pam_message* all[] = {&messages[0], &messages[1], &messages[2], &messages[3]};

} // namespace

// Fault injection: the conversation copies its answers with strdup; this definition replaces the C library's
// in this test program.
extern "C" char* strdup(const char* text) noexcept {
    if (strdupFailAt.load() >= 0 && strdupFailAt.fetch_sub(1) == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    return copy ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

TEST(PamConversation, EachMessageIsAnsweredInItsOwnSlotByItsStyleAndLoggedWithoutTheAnswer) {
    PamService pam(anyService, login, password);
    pam_response* responses = nullptr;
    int rc = PAM_CONV_ERR;
    const auto log = TestSupport::logged([&] { rc = auth_conv(4, all, &responses, &pam); });
    ASSERT_TRUE(rc == PAM_SUCCESS && responses) << rc;
    // one line per message, and no answer, the password least of all
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4) << log;
    EXPECT_TRUE(log.find(password) == std::string::npos && log.find(login) == std::string::npos) << log;
    const char* answers[] = {login, nullptr, password, password};
    for (size_t i = 0; i < std::size(answers); ++i) {
        const std::string echo = messages[i].msg_style == PAM_PROMPT_ECHO_ON ? "on" : "off";
        EXPECT_TRUE(
            TestSupport::contains(log, "]\tPAM request msg: `"s + messages[i].msg + "', prompt echo: `" + echo + "'\n"))
            << log;
        EXPECT_STREQ(responses[i].resp, answers[i]) << messages[i].msg;
        std::free(responses[i].resp);
    }
    std::free(responses);
}

// Answers left behind (password copies among them) show up under ASan.
TEST(PamConversation, FailedCallLeavesNoAnswers) {
    PamService pam(anyService, login, password);
    const pam_message* holes[] = {&messages[2], nullptr};
    const std::tuple<int, const pam_message**, bool, void*> refused[] = {
        {1, nullptr, true, &pam},               // no messages
        {1, all, false, &pam},                  // no response pointer
        {1, all, true, nullptr},                // no application data
        {0, all, true, &pam},                   // no message to answer
        {PAM_MAX_NUM_MSG + 1, all, true, &pam}, // more than PAM allows
        {2, holes, true, &pam},                 // a missing message after an answered one
    };
    Syslog::setDebugLevel(DebugLevel::Silent);
    for (const auto& [count, list, withResponses, appdata] : refused) {
        pam_response* responses = nullptr;
        EXPECT_EQ(auth_conv(count, list, withResponses ? &responses : nullptr, appdata), PAM_CONV_ERR) << count;
        EXPECT_EQ(responses, nullptr) << count;
    }
    for (const int failing : {0, 1, 2}) {
        pam_response* responses = nullptr;
        strdupFailAt = failing;
        EXPECT_EQ(auth_conv(4, all, &responses, &pam), PAM_BUF_ERR) << "failing copy #" << failing;
        EXPECT_EQ(strdupFailAt.exchange(-1), -1) << "fewer copies than answers, failing copy #" << failing;
        EXPECT_EQ(responses, nullptr) << "failing copy #" << failing;
    }
    Syslog::setDebugLevel(DebugLevel::None);
}
