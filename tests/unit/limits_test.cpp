#include <gtest/gtest.h>

#include "common/json_config.h"
#include "limits/resource_limits.h"

using namespace Vexa;

TEST(ResourceLimits, ValuesAreConvertedAsTheSystemdPropertiesExpect) {
    const ResourceLimits limits(parseJsonStrict(R"({"cpu:quota": 50, "cpu:weight": -3, "tasks:max": 100,
        "memory:high": "1G", "memory:max": "", "network:deny": "any", "network:allow": "10.0.0.0/8"})"));
    const ResourceLimits expected = [] {
        ResourceLimits l;
        l[ResourceControl::CpuQuota] = "50%";
        l[ResourceControl::CpuWeight] = "-3";
        l[ResourceControl::TasksMax] = "100";
        l[ResourceControl::MemoryHigh] = "1G";
        l[ResourceControl::NetworkDeny] = "any";
        l[ResourceControl::NetworkAllow] = "10.0.0.0/8";
        return l;
    }();
    EXPECT_EQ(limits, expected); // the empty "memory:max" text is skipped
}

TEST(ResourceLimits, QuotaBelowOneResetsTheProperty) {
    for (const char* text : {R"({"cpu:quota": 0})", R"({"cpu:quota": -5})"}) {
        const ResourceLimits limits(parseJsonStrict(text));
        ASSERT_EQ(limits.count(ResourceControl::CpuQuota), 1u) << text;
        EXPECT_EQ(limits.at(ResourceControl::CpuQuota), "") << text;
    }
}

TEST(ResourceLimits, AnythingButAnObjectGivesNoEntries) {
    for (const char* text : {"[1]", "5", "null"}) {
        EXPECT_TRUE(ResourceLimits(parseJsonStrict(text)).empty()) << text;
    }
}

TEST(ResourceLimits, NamesExistForTheSevenControlsOnly) {
    EXPECT_STREQ(ResourceControlJsonName(ResourceControl::CpuQuota), "cpu:quota");
    EXPECT_STREQ(ResourceControlSystemdName(ResourceControl::NetworkDeny), "IPAddressDeny");
    EXPECT_STREQ(ResourceControlSystemdName(ResourceControl::NetworkAllow), "IPAddressAllow");
    EXPECT_EQ(ResourceControlJsonName(static_cast<ResourceControl>(7)), nullptr);
    EXPECT_EQ(ResourceControlSystemdName(static_cast<ResourceControl>(200)), nullptr);
}

TEST(LimitsDefaults, ReadFromTheDefaultObjectOnly) {
    const auto d = readLimitsDefaults(parseJsonStrict(R"({"default": {"cpu:quota": 40, "cpu:weight": 200,
        "tasks:max": 64, "memory:high": "2G", "network:allow": "any"}, "users": [{"name": "u", "cpu:weight": 1}]})"));
    EXPECT_EQ(d.cpuQuota, 40);
    EXPECT_EQ(d.cpuWeight, 200);
    EXPECT_EQ(d.tasksMax, 64);
    EXPECT_EQ(d.memoryHigh, "2G");
    EXPECT_EQ(d.memoryMax, "");
    EXPECT_EQ(d.networkDeny, "");
    EXPECT_EQ(d.networkAllow, "any");

    const auto none = readLimitsDefaults(parseJsonStrict(R"({"default": [1, 2]})"));
    EXPECT_EQ(none.cpuQuota, 0);
    EXPECT_EQ(none.memoryHigh, "");
}
