// The JUnit report carries command output and names from files: whatever they hold, the text
// must stay well-formed XML that a CI server can read.
#include <gtest/gtest.h>

#include "tools/vxcdb/vxcdbcampaignreport.h"

namespace {

TEST(CampaignReport, XmlTextKeepsCharactersXmlAllowsAndReplacesTheRest) {
    const struct {
        std::string text;
        std::string xml;
    } cases[] = {
        {"a<b>&\"c'", "a&lt;b&gt;&amp;&quot;c&apos;"},
        {"tab\tline\nreturn\r", "tab\tline\nreturn\r"},
        {std::string("nul\0bell\a", 9), "nul?bell?"},
        {"相机 ✓ 😀", "相机 ✓ 😀"},                // wide characters, four-byte sequences
        {"\xff\xfe cut \xe7\x9b", "?? cut ??"},  // not UTF-8; a sequence cut short
        {"\xc0\xaf \xed\xa0\x80 \xef\xbf\xbf", "?? ??? ???"},  // overlong, surrogate, U+FFFF
    };
    for (const auto& each : cases) {
        EXPECT_EQ(vxcdb::XmlEscape(each.text), each.xml) << each.text;
    }
}

}  // namespace
