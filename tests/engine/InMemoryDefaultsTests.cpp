// The settings domain held in memory, and the Boolean reading every switch goes through.
#include <gtest/gtest.h>

#include "platform/sim/InMemoryDefaults.h"

namespace brightmix {
namespace {

TEST(InMemoryDefaultsTest, StoresReplacesRemovesAndForgetsTheDomain) {
    InMemoryDefaults defaults;
    EXPECT_FALSE(defaults.get("volume"));
    defaults.set("volume", PropertyList::real(0.5));
    defaults.set("volume", PropertyList::real(0.25));
    defaults.set("name", "Desk");
    EXPECT_EQ(defaults.get("volume"), PropertyList::real(0.25));
    defaults.remove("volume");
    defaults.remove("absent");
    EXPECT_FALSE(defaults.get("volume"));
    EXPECT_EQ(defaults.get("name"), PropertyList("Desk"));
    defaults.removeDomain();
    EXPECT_TRUE(defaults.values().empty());
}

TEST(InMemoryDefaultsTest, BooleansReadLikeTheSettingsDomainReadsThem) {
    const std::pair<PropertyList, bool> cases[] = {
        {PropertyList::boolean(true), true}, {PropertyList::boolean(false), false},
        {PropertyList::integer(2), true},    {PropertyList::integer(0), false},
        {PropertyList::real(0.5), true},     {PropertyList("YES"), true},
        {PropertyList("true"), true},        {PropertyList("1"), true},
        {PropertyList("no"), false},         {PropertyList("on"), false},
        {PropertyList::array(), false},      {PropertyList(), false},
    };
    for (const auto& [value, expected] : cases) {
        InMemoryDefaults defaults({{"diagnostics", value}});
        EXPECT_EQ(defaults.boolForKey("diagnostics"), expected) << value.description();
    }
    EXPECT_FALSE(InMemoryDefaults().boolForKey("diagnostics"));
}

} // namespace
} // namespace brightmix
