#include "utils/stringutils.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Strings = std::vector<std::string>;

TEST(SplitStringTest, TokenizesOnAnyDelimiterCharacter) {
    struct Case {
        std::string text, delimiters;
        Strings expected;
    } cases[] = {
        {",,a,,b,", ",", {"a", "b"}},     {"", ",", {}},    {"a b", "", {"a b"}},
        {"1;2 3", "; ", {"1", "2", "3"}}, {",,,", ",", {}}, {"abc", ",", {"abc"}},
    };
    for (const Case& c : cases) {
        Strings out;
        SplitString(c.text, &out, c.delimiters);
        EXPECT_EQ(out, c.expected) << "text '" << c.text << "'";
    }
}

TEST(SplitStringTest, AppendsBehindExistingItems) {
    Strings out = {"kept"};
    SplitString("x,y", &out, ",");
    EXPECT_EQ(out, (Strings{"kept", "x", "y"}));
}

TEST(SplitIntTest, SignExtendsAndThrowsOnNonNumbers) {
    std::vector<unsigned long> out;
    SplitInt("3,-1, 7x", &out, ",");
    EXPECT_EQ(out, (std::vector<unsigned long>{3, 18446744073709551615UL, 7}));
    EXPECT_THROW(SplitInt("x", &out, ","), std::invalid_argument);
    EXPECT_THROW(SplitInt("99999999999", &out, ","), std::out_of_range);
}

TEST(StringJoinTest, JoinsWithSeparatorKeepingEmptyItems) {
    EXPECT_EQ(StringJoin({}, ","), "");
    EXPECT_EQ(StringJoin({"a"}, ","), "a");
    EXPECT_EQ(StringJoin({"a", "b", "c"}, ","), "a,b,c");
    EXPECT_EQ(StringJoin({"a", ""}, ","), "a,");
    EXPECT_EQ(StringJoinUint({1, 18446744073709551615UL}, ","), "1,18446744073709551615");
    EXPECT_EQ(StringJoinUint({}, ","), "");
}

TEST(CompareTest, IsExactPairwiseEquality) {
    EXPECT_TRUE(Compare({}, {}));
    EXPECT_TRUE(Compare({"a", "b"}, {"a", "b"}));
    EXPECT_FALSE(Compare({"a", "b"}, {"b", "a"}));
    EXPECT_FALSE(Compare({"a"}, {"A"}));
    EXPECT_FALSE(Compare({"a"}, {"a", ""}));
}

TEST(PaddingTest, CenterAndLeftAlign) {
    EXPECT_EQ(Center("abc", 3, '-'), "abc");
    EXPECT_EQ(Center("a", 4, '*'), "*a**");
    EXPECT_EQ(Center("ab", 5, '-'), "-ab--");
    EXPECT_EQ(Center("abc", -1, '-'), "abc");
    EXPECT_EQ(leftAlign("abc", 5, ' '), "abc  ");
    EXPECT_EQ(leftAlign("abcdef", 3, ' '), "abcdef");
    EXPECT_EQ(leftAlign("abc", -4, ' '), "abc");
}

TEST(AffixTest, StartsWithAndEndsWithKeepTheirQuirk) {
    EXPECT_TRUE(StartsWith("create table x", "create table "));
    EXPECT_TRUE(StartsWith("abc", ""));
    EXPECT_FALSE(StartsWith("ab", "abc"));
    EXPECT_FALSE(StartsWith("CREATE", "create"));

    EXPECT_TRUE(EndsWith("", "x"));      // suffix one longer and absent: true on purpose
    EXPECT_TRUE(EndsWith("ab", "xyz"));  // the same quirk
    EXPECT_FALSE(EndsWith("ab", "xy"));
    EXPECT_FALSE(EndsWith("ab", "wxyz"));
    EXPECT_TRUE(EndsWith("abcb", "b"));
    EXPECT_TRUE(EndsWith("abc", ""));
    EXPECT_FALSE(EndsWith("abcb", "c"));
}

}  // namespace
