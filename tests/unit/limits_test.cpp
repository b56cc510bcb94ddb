#include <gtest/gtest.h>

#include "common/json_config.h"
#include "limits/resource_limits.h"
#include "limits/systemctl.h"
#include "session/session.h"
#include "test_support.h"

using namespace Vexa;

TEST(ResourceLimits, ValuesAreConvertedAsTheSystemdPropertiesExpect) {
    const ResourceLimits limits(parseJsonStrict(R"({"cpu:quota": 50, "cpu:weight": -3, "tasks:max": 100,
        "memory:high": "1G", "memory:max": "", "network:deny": "any"})"));
    using enum ResourceControl;
    const std::map<ResourceControl, std::string> expected{
        {CpuQuota, "50%"}, {CpuWeight, "-3"}, {TasksMax, "100"}, {MemoryHigh, "1G"}, {NetworkDeny, "any"}};
    EXPECT_EQ(limits, expected); // an empty text is skipped

    // A quota below 1 resets the property; anything but an object gives nothing.
    EXPECT_EQ(ResourceLimits(parseJsonStrict(R"({"cpu:quota": 0})")).at(CpuQuota), "");
    EXPECT_TRUE(ResourceLimits(parseJsonStrict("[1]")).empty());
    EXPECT_EQ(ResourceControlSystemdName(NetworkAllow), std::string("IPAddressAllow"));
    EXPECT_EQ(ResourceControlJsonName(static_cast<ResourceControl>(7)), nullptr);
}

TEST(Systemctl, CommandTextQuotesValuesAndLeavesResetsBare) {
    EXPECT_EQ(systemctlCommandText("user-0.slice", {{"IPAddressDeny", R"(a"b\c)"}}),
              R"(/usr/bin/systemctl set-property user-0.slice IPAddressDeny="a\"b\\c")");
    EXPECT_EQ(systemctlCommandText("user-1000.slice", {{"MemoryMax", "1G"}, {"CPUQuota", ""}, {"CPUWeight", "100"}}),
              R"(/usr/bin/systemctl set-property user-1000.slice MemoryMax="1G" CPUQuota= CPUWeight="100")");
    EXPECT_EQ(userSliceName(4294967294u), "user-4294967294.slice");
}

TEST(Systemctl, ArgumentsCarryEachValueAsOneArgumentWithoutQuoting) {
    const std::string hostile = R"(50%"; touch /tmp/x; " $(id) `id`)";
    EXPECT_EQ(systemctlArguments("session-3.scope", {{"CPUQuota", hostile}, {"TasksMax", ""}}),
              (std::list<std::string>{"set-property", "session-3.scope", "CPUQuota=" + hostile, "TasksMax="}));
}

TEST(ResourceLimits, AUserLevelValueReplacesTheSessionsOverrideAndAQuotaReadsAsPercent) {
    using enum ResourceControl;
    Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
    session.resourceControlSet(MemoryMax, "1G", false);
    session.resourceControlSet(CpuQuota, "40", false); // a stored quota without its sign still reads as percent
    EXPECT_EQ(session.resourceControlValue(CpuQuota, false), "40%");
    EXPECT_EQ(session.resourceControlValue(MemoryMax, true), "");
    session.resourceLimitsJoin(ResourceLimits(parseJsonStrict(R"({"memory:max": "2G", "tasks:max": 9})")), true);
    EXPECT_EQ(session.resourceControlValue(MemoryMax, true), "2G");
    EXPECT_EQ(session.resourceControlValue(MemoryMax, false), ""); // the user's value removed the override
    EXPECT_EQ(session.resourceControlValue(CpuQuota, false), "40%");
    session.resourceControlSet(TasksMax, "", true); // empty: erased
    ASSERT_EQ(session.user->userLimits.size(), 1u);
    EXPECT_EQ(session.user->userLimits.at(MemoryMax), "2G");
    Session orphan(2, nullptr, ServiceDefaults{}); // no user record: the user level holds nothing
    orphan.resourceControlSet(MemoryMax, "1G", true);
    EXPECT_EQ(orphan.resourceControlValue(MemoryMax, true), "");
}
