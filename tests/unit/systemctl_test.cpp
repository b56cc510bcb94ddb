#include <gtest/gtest.h>

#include "limits/systemctl.h"

using namespace Vexa;

TEST(Systemctl, CommandTextQuotesValuesAndLeavesResetsBare) {
    const std::string prefix = "/usr/bin/systemctl set-property ";
    const std::tuple<std::string, std::vector<PropertyAssignment>, std::string> cases[] = {
        {"session-3.scope", {{"CPUQuota", "40%"}}, R"(session-3.scope CPUQuota="40%")"},
        {"session-3.scope", {{"TasksMax", ""}}, "session-3.scope TasksMax="},
        {"user-0.slice", {{"IPAddressDeny", R"(a"b\c)"}}, R"(user-0.slice IPAddressDeny="a\"b\\c")"},
        {"user-1000.slice",
         {{"MemoryMax", "1G"}, {"CPUQuota", ""}, {"IPAddressAllow", "10.0.0.0/8 ::1"}, {"CPUWeight", "100"}},
         R"(user-1000.slice MemoryMax="1G" CPUQuota= IPAddressAllow="10.0.0.0/8 ::1" CPUWeight="100")"},
        {"user-1000.slice", {}, "user-1000.slice"},
    };
    for (const auto& [unit, assignments, text] : cases) {
        EXPECT_EQ(systemctlCommandText(unit, assignments), prefix + text);
    }
    EXPECT_EQ(userSliceName(0), "user-0.slice");
    EXPECT_EQ(userSliceName(4294967294u), "user-4294967294.slice");
}
