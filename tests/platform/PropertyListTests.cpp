// Property-list values: typed access never converts across kinds it should not, equality is
// by kind and value, and the text form is stable.
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

#include "platform/PropertyList.h"

namespace brightmix {
namespace {

TEST(PropertyList, TypedAccessAnswersOnlyForItsKind) {
    const PropertyList text("abc");
    EXPECT_EQ(text.kind(), PropertyList::Kind::string);
    EXPECT_EQ(*text.asString(), "abc");
    EXPECT_FALSE(text.asInteger());
    EXPECT_FALSE(text.asNumber());
    EXPECT_EQ(text.asArray(), nullptr);
    EXPECT_EQ(text.find("x"), nullptr);

    const auto flag = PropertyList::boolean(true);
    EXPECT_EQ(flag.asBoolean(), true);
    EXPECT_FALSE(flag.asInteger());  // a Boolean is no integer...
    EXPECT_EQ(flag.asNumber(), 1.0); // ...but stands for 1 where CF would take a number

    EXPECT_EQ(PropertyList::integer(-3).asInteger(), -3);
    EXPECT_FALSE(PropertyList::integer(-3).asUnsignedInteger());
    EXPECT_EQ(PropertyList::unsignedInteger(7).asInteger(), 7);
    EXPECT_FALSE(
        PropertyList::unsignedInteger(std::numeric_limits<std::uint64_t>::max()).asInteger());
    EXPECT_FALSE(PropertyList::real(1.0).asInteger());
    EXPECT_EQ(PropertyList::real(0.5).asNumber(), 0.5);
    EXPECT_TRUE(PropertyList().isNull());
    EXPECT_EQ(PropertyList::data({1, 2}).asData()->size(), 2u);
}

TEST(PropertyList, EqualityIsByKindAndValue) {
    EXPECT_EQ(PropertyList::integer(1), PropertyList::integer(1));
    EXPECT_NE(PropertyList::integer(1), PropertyList::unsignedInteger(1));
    EXPECT_NE(PropertyList::integer(1), PropertyList::boolean(true));
    EXPECT_NE(PropertyList(), PropertyList(""));
    const auto dictionary = PropertyList::dictionary(
        {{"b", PropertyList::array({PropertyList("x")})}, {"a", PropertyList::integer(2)}});
    auto copy = dictionary;
    EXPECT_EQ(copy, dictionary);
    (*copy.asDictionary())["b"].asArray()->push_back(PropertyList());
    EXPECT_NE(copy, dictionary);
    EXPECT_EQ(*dictionary.find("a"), PropertyList::integer(2));
}

TEST(PropertyList, DescriptionIsCompactAndDeterministic) {
    const auto value = PropertyList::dictionary(
        {{"z", PropertyList::array({PropertyList::boolean(false), PropertyList(),
                                    PropertyList::unsignedInteger(3)})},
         {"a \"q\"", PropertyList("t\\x")},
         {"n", PropertyList::real(0.25)},
         {"i", PropertyList::integer(-4)},
         {"d", PropertyList::data({1, 2, 3})},
         {"inf", PropertyList::real(-std::numeric_limits<double>::infinity())},
         {"nan", PropertyList::real(std::nan(""))}});
    EXPECT_EQ(value.description(),
              "{\"a \\\"q\\\"\": \"t\\\\x\", \"d\": <3 bytes>, \"i\": -4, \"inf\": -inf, "
              "\"n\": 0.25, \"nan\": nan, \"z\": [false, null, 3u]}");
}

} // namespace
} // namespace brightmix
