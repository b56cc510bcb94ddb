#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "start/pam_service.h"

using namespace Vexa;

namespace {
// When non-negative: the number of strdup calls that still succeed before one fails.
std::atomic<int> strdupFailAt{-1};
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

namespace {

constexpr const char* login = "e2e-alice";
constexpr const char* password = "Pa55-w0rd!";
// Present on every Linux-PAM system; these tests never run its modules.
constexpr const char* anyService = "other";

// Messages laid out as Linux-PAM modules pass them: an array of pointers.
struct Request {
    std::vector<pam_message> messages;
    std::vector<const pam_message*> pointers;

    explicit Request(std::vector<pam_message> list) : messages(std::move(list)) {
        for (const auto& m : messages) {
            pointers.push_back(&m);
        }
    }
    int count() const { return static_cast<int>(pointers.size()); }
    const pam_message** data() { return pointers.data(); }
};

const pam_conv* conversationOf(const PamService& pam) {
    const void* item = nullptr;
    EXPECT_EQ(pam_get_item(pam.getHandle(), PAM_CONV, &item), PAM_SUCCESS);
    return static_cast<const pam_conv*>(item);
}

} // namespace

TEST(PamConversation, EachMessageIsAnsweredInItsOwnSlotByItsStyle) {
    struct Row {
        const char* name;
        std::vector<pam_message> messages;
        std::vector<const char*> answers; // nullptr: no answer
    };
    const Row rows[] = {
        {"echoed prompt", {{PAM_PROMPT_ECHO_ON, "login: "}}, {login}},
        {"hidden prompt", {{PAM_PROMPT_ECHO_OFF, "Password: "}}, {password}},
        {"information text", {{PAM_TEXT_INFO, "Welcome"}}, {nullptr}},
        {"error text", {{PAM_ERROR_MSG, "Password unchanged"}}, {nullptr}},
        {"several in one call",
         {{PAM_PROMPT_ECHO_OFF, "Current password: "},
          {PAM_TEXT_INFO, "You are required to change your password"},
          {PAM_PROMPT_ECHO_ON, "Login: "},
          {PAM_ERROR_MSG, "Try again"},
          {PAM_PROMPT_ECHO_OFF, "New password: "}},
         {password, nullptr, login, nullptr, password}},
    };
    PamService pam(anyService, login, password);
    // called the way the modules call it, through the transaction's item
    const pam_conv* conv = conversationOf(pam);
    ASSERT_TRUE(conv && conv->appdata_ptr == &pam);
    for (const auto& row : rows) {
        Request request(row.messages);
        pam_response* responses = nullptr;
        Syslog::setDebugLevel(DebugLevel::Console);
        ::testing::internal::CaptureStderr();
        const int rc = conv->conv(request.count(), request.data(), &responses, conv->appdata_ptr);
        const std::string logged = ::testing::internal::GetCapturedStderr();
        Syslog::setDebugLevel(DebugLevel::None);

        ASSERT_EQ(rc, PAM_SUCCESS) << row.name;
        ASSERT_NE(responses, nullptr) << row.name;
        size_t from = 0;
        for (size_t i = 0; i < row.answers.size(); ++i) {
            const auto& [style, text] = row.messages[i];
            EXPECT_STREQ(responses[i].resp, row.answers[i]) << row.name << " #" << i;
            EXPECT_EQ(responses[i].resp_retcode, 0) << row.name << " #" << i;
            // one line per message, in order, with the prompt's text and never an answer
            const std::string line = std::string("PAM request msg: `") + text + "', prompt echo: `" +
                                     (style == PAM_PROMPT_ECHO_ON ? "on" : "off") + "'\n";
            const auto at = logged.find(line, from);
            EXPECT_NE(at, std::string::npos) << row.name << " #" << i << ": " << logged;
            from = at == std::string::npos ? from : at + 1;
            std::free(responses[i].resp);
        }
        EXPECT_EQ(logged.find(password), std::string::npos) << row.name << ": " << logged;
        std::free(responses);
    }
}

TEST(PamConversation, RefusesMissingArgumentsAndImpossibleCountsWithoutAllocating) {
    PamService pam(anyService, login, password);
    Request one({{PAM_PROMPT_ECHO_OFF, "Password: "}});
    const pam_message* holes[] = {one.data()[0], nullptr};
    struct Row {
        const char* name;
        int count;
        const pam_message** messages;
        bool withResponses;
        void* appdata;
    };
    const Row rows[] = {
        {"no messages", 1, nullptr, true, &pam},
        {"no response pointer", 1, one.data(), false, &pam},
        {"no application data", 1, one.data(), true, nullptr},
        {"zero messages", 0, one.data(), true, &pam},
        {"more than PAM allows", PAM_MAX_NUM_MSG + 1, one.data(), true, &pam},
        {"a missing message after an answered one", 2, holes, true, &pam},
    };
    Syslog::setDebugLevel(DebugLevel::Silent);
    for (const auto& row : rows) {
        pam_response* responses = nullptr;
        EXPECT_EQ(auth_conv(row.count, row.messages, row.withResponses ? &responses : nullptr, row.appdata),
                  PAM_CONV_ERR)
            << row.name;
        EXPECT_EQ(responses, nullptr) << row.name;
    }
    Syslog::setDebugLevel(DebugLevel::None);
}

// Leaked answers (password copies among them) show up under ASan.
TEST(PamConversation, FailedCopyOfAnAnswerReleasesEverythingAndReportsBufferError) {
    PamService pam(anyService, login, password);
    Request request({{PAM_PROMPT_ECHO_ON, "login: "},
                     {PAM_TEXT_INFO, "Welcome"},
                     {PAM_PROMPT_ECHO_OFF, "Password: "},
                     {PAM_PROMPT_ECHO_OFF, "Again: "}});
    for (const int failing : {0, 1, 2}) {
        pam_response* responses = nullptr;
        Syslog::setDebugLevel(DebugLevel::Silent);
        strdupFailAt = failing;
        const int rc = auth_conv(request.count(), request.data(), &responses, &pam);
        const int unused = strdupFailAt.exchange(-1);
        Syslog::setDebugLevel(DebugLevel::None);
        EXPECT_EQ(rc, PAM_BUF_ERR) << "failing copy #" << failing;
        EXPECT_EQ(responses, nullptr) << "failing copy #" << failing;
        EXPECT_EQ(unused, -1) << "fewer copies than answers, failing copy #" << failing;
    }
}

TEST(PamService, ItemsAreStoredUpToTheEndOfTheViewAndTheConversationCannotBeReplaced) {
    PamService pam(anyService, login, password);
    const std::string text = ":11 and what follows";
    const std::pair<int, std::string_view> rows[] = {{PAM_TTY, "vexa:11"}, {PAM_XDISPLAY, {text.data(), 3}}};
    for (const auto& [type, value] : rows) {
        pam.setItem(type, value);
        const void* item = nullptr;
        ASSERT_EQ(pam_get_item(pam.getHandle(), type, &item), PAM_SUCCESS) << type;
        EXPECT_EQ(static_cast<const char*>(item), value) << type;
    }
    // taken as the conversation, a string would be called as a function by the next module
    pam.setItem(PAM_CONV, "not a conversation");
    const pam_conv* conv = conversationOf(pam);
    ASSERT_NE(conv, nullptr);
    EXPECT_TRUE(conv->conv == &auth_conv && conv->appdata_ptr == &pam);
}

// Linux-PAM reads an unknown service's modules from "other" and fails to start only when that is missing too.
TEST(PamService, UnknownServiceFallsBackToOtherAndThrowsOnlyWithoutIt) {
    const char* unknown = "vexa-unit-no-such-service";
    if (!std::filesystem::exists("/etc/pam.d/other")) {
        try {
            PamService pam(unknown, login, password);
            ADD_FAILURE() << "started without /etc/pam.d/other";
        } catch (const pam_error& e) {
            EXPECT_STREQ(e.what(), "PamService");
        }
        return;
    }
    PamService pam(unknown, login, password);
    for (const auto& [type, expected] : {std::pair{PAM_SERVICE, unknown}, std::pair{PAM_USER, login}}) {
        const void* item = nullptr;
        ASSERT_EQ(pam_get_item(pam.getHandle(), type, &item), PAM_SUCCESS);
        EXPECT_STREQ(static_cast<const char*>(item), expected);
    }
}
