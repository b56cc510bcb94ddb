#include <gtest/gtest.h>

#include "common/json_config.h"
#include "limits/resource_limits.h"
#include "limits/systemctl.h"

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
