// The Boolean reading of the settings domain that every switch goes through.
#include <gtest/gtest.h>

#include "platform/sim/InMemoryDefaults.h"

namespace brightmix {
namespace {

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
