#include "utils/stringutils.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Strings = std::vector<std::string>;

TEST(SplitStringTest, TokenizesOnAnyDelimiterAndAppends) {
    struct Case {
        std::string text, delimiters;
        Strings expected;
    } cases[] = {
        {",,a,,b,", ",", {"kept", "a", "b"}},
        {",,,", ",", {"kept"}},
        {"a b", "", {"kept", "a b"}},
        {"1;2 3", "; ", {"kept", "1", "2", "3"}},
    };
    for (const Case& c : cases) {
        Strings out = {"kept"};
        SplitString(c.text, &out, c.delimiters);
        EXPECT_EQ(out, c.expected) << "text '" << c.text << "'";
    }
    std::vector<unsigned long> numbers;
    SplitInt("3,-1, 7x", &numbers, ",");  // sign-extended, trailing junk ignored
    EXPECT_EQ(numbers, (std::vector<unsigned long>{3, 18446744073709551615UL, 7}));
    EXPECT_THROW(SplitInt("x", &numbers, ","), std::invalid_argument);
    EXPECT_THROW(SplitInt("99999999999", &numbers, ","), std::out_of_range);
}

TEST(StringFormatTest, JoinPaddingAndAffixes) {
    EXPECT_EQ(StringJoin({}, ","), "");
    EXPECT_EQ(StringJoin({"a", "", "c"}, ","), "a,,c");
    EXPECT_EQ(StringJoinUint({1, 18446744073709551615UL}, ","), "1,18446744073709551615");
    EXPECT_EQ(Center("a", 4, '*'), "*a**");  // the odd fill goes right
    EXPECT_EQ(Center("abc", 2, '-'), "abc");
    EXPECT_EQ(leftAlign("abc", 5, ' '), "abc  ");
    EXPECT_EQ(leftAlign("abcdef", -3, ' '), "abcdef");
    EXPECT_TRUE(StartsWith("create table x", "create table "));
    EXPECT_FALSE(StartsWith("ab", "abc"));
    EXPECT_FALSE(StartsWith("CREATE", "create"));
    // A suffix one longer than the text and absent from it counts as present, on purpose.
    EXPECT_TRUE(EndsWith("ab", "xyz"));
    EXPECT_FALSE(EndsWith("ab", "wxyz"));
    EXPECT_FALSE(EndsWith("ab", "xy"));
    EXPECT_TRUE(EndsWith("abcb", "b"));  // the last occurrence counts
    EXPECT_FALSE(EndsWith("abcb", "c"));
}

}  // namespace
