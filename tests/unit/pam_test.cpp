#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "start/pam_service.h"

using namespace Vexa;

namespace {

// When non-negative: the number of strdup calls that still succeed before one fails.
std::atomic<int> strdupFailAt{-1};
constexpr const char* login = "e2e-alice";
constexpr const char* password = "Pa55-w0rd!";
// Present on every Linux-PAM system; these tests never run its modules.
constexpr const char* anyService = "other";

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

// Console lines are "[time]\tmessage"; keeps the messages.
std::string withoutTimeStamps(const std::string& text) {
    std::string result;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const auto line = text.substr(start, end - start);
        result.append(line.substr(line.find('\t') + 1)).append("\n");
    }
    return result;
}

TEST(PamConversation, EachMessageIsAnsweredInItsOwnSlotByItsStyleAndLoggedWithoutTheAnswer) {
    using Exchange = std::vector<std::pair<pam_message, const char*>>; // a message and its answer, if any
    const Exchange rows[] = {
        {{{PAM_PROMPT_ECHO_OFF, "Password: "}, password}},
        {{{PAM_PROMPT_ECHO_OFF, "Current password: "}, password},
         {{PAM_TEXT_INFO, "You are required to change your password"}, nullptr},
         {{PAM_PROMPT_ECHO_ON, "Login: "}, login},
         {{PAM_ERROR_MSG, "Try again"}, nullptr}},
    };
    PamService pam(anyService, login, password);
    for (const auto& row : rows) {
        std::vector<const pam_message*> messages;
        std::string expectedLog;
        for (const auto& [message, answer] : row) {
            messages.push_back(&message);
            expectedLog += std::string("PAM request msg: `") + message.msg + "', prompt echo: `" +
                           (message.msg_style == PAM_PROMPT_ECHO_ON ? "on" : "off") + "'\n";
        }
        pam_response* responses = nullptr;
        Syslog::setDebugLevel(DebugLevel::Console);
        ::testing::internal::CaptureStderr();
        const int rc = auth_conv(static_cast<int>(row.size()), messages.data(), &responses, &pam);
        const std::string logged = ::testing::internal::GetCapturedStderr();
        Syslog::setDebugLevel(DebugLevel::None);

        ASSERT_TRUE(rc == PAM_SUCCESS && responses) << rc;
        // exactly these lines, time stamps aside: no answer, the password least of all
        EXPECT_EQ(withoutTimeStamps(logged), expectedLog);
        for (size_t i = 0; i < row.size(); ++i) {
            EXPECT_STREQ(responses[i].resp, row[i].second) << row[i].first.msg;
            std::free(responses[i].resp);
        }
        std::free(responses);
    }
}

// Answers left behind (password copies among them) show up under ASan.
TEST(PamConversation, FailedCallLeavesNoAnswers) {
    PamService pam(anyService, login, password);
    const pam_message messages[] = {{PAM_PROMPT_ECHO_ON, "login: "},
                                    {PAM_TEXT_INFO, "Welcome"},
                                    {PAM_PROMPT_ECHO_OFF, "Password: "},
                                    {PAM_PROMPT_ECHO_OFF, "Again: "}};
    const pam_message* all[] = {&messages[0], &messages[1], &messages[2], &messages[3]};
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
