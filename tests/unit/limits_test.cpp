#include <gtest/gtest.h>

#include "common/json_config.h"
#include "limits/resource_limits.h"

using namespace Vexa;

TEST(ResourceLimits, ValuesAreConvertedAsTheSystemdPropertiesExpect) {
    const ResourceLimits limits(parseJsonStrict(R"({"cpu:quota": 50, "cpu:weight": -3, "tasks:max": 100,
        "memory:high": "1G", "memory:max": "", "network:deny": "any"})"));
    const ResourceLimits expected = [] {
        ResourceLimits l;
        l[ResourceControl::CpuQuota] = "50%";
        l[ResourceControl::CpuWeight] = "-3";
        l[ResourceControl::TasksMax] = "100";
        l[ResourceControl::MemoryHigh] = "1G";
        l[ResourceControl::NetworkDeny] = "any";
        return l;
    }();
    EXPECT_EQ(limits, expected); // an empty text is skipped

    // A quota below 1 resets the property; anything but an object gives nothing.
    EXPECT_EQ(ResourceLimits(parseJsonStrict(R"({"cpu:quota": 0})")).at(ResourceControl::CpuQuota), "");
    EXPECT_EQ(ResourceLimits(parseJsonStrict(R"({"cpu:quota": -5})")).at(ResourceControl::CpuQuota), "");
    EXPECT_TRUE(ResourceLimits(parseJsonStrict("[1]")).empty());
    EXPECT_EQ(ResourceControlSystemdName(ResourceControl::NetworkAllow), std::string("IPAddressAllow"));
    EXPECT_EQ(ResourceControlJsonName(static_cast<ResourceControl>(7)), nullptr);
}

TEST(LimitsDefaults, ReadFromTheDefaultObjectOnly) {
    const auto d = readLimitsDefaults(parseJsonStrict(R"({"default": {"cpu:quota": 40, "cpu:weight": 200,
        "tasks:max": 64, "memory:high": "2G", "network:allow": "any"}, "users": [{"name": "u", "cpu:weight": 1}]})"));
    EXPECT_EQ(std::make_tuple(d.cpuQuota, d.cpuWeight, d.tasksMax), std::make_tuple(40, 200, 64));
    EXPECT_EQ(std::make_tuple(d.memoryHigh, d.memoryMax, d.networkDeny, d.networkAllow),
              std::make_tuple("2G", "", "", "any"));
    EXPECT_EQ(readLimitsDefaults(parseJsonStrict(R"({"default": [1, 2]})")).cpuQuota, 0);
}
