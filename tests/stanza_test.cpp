// What a section is made of: attributes with their value lists, one by one and by the names in a list.
#include "config/Stanza.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<const char*, const char*>>;

AttributeList listOf(const Pairs& pairs) {
    AttributeList list;
    for (const auto& [key, value] : pairs)
        list.addAttribute(key, value);
    return list;
}

// "key=value|" for each attribute, in order.
std::string imageOf(Stanza& stanza) {
    std::string image;
    Attribute attribute;
    for (std::uint32_t i = 0; stanza.getAttributeIndex(i, attribute); ++i)
        image += std::string(attribute.key().GetTextEx()) + "=" + attribute.value().GetTextEx() + "|";
    return image;
}

}  // namespace

TEST(List, ThrowsWhereNothingIs) {
    Lists<int> list;
    EXPECT_THROW(list.removeHead(), Lists<int>::EmptyError);
    EXPECT_THROW(ListIterators<int>(list).next(), ListIterators<int>::EndOfListError);
}

TEST(Attribute, ReadsAndChangesTheElementsOfAValueList) {
    const struct {
        const char* value;
        std::uint32_t index;
        std::string element;  // "-": none
        std::string changed;  // with "x" in its place
    } cases[] = {
        {"", 0, "-", ""},     {"a::b", 1, "", "a:x:b"},        {":long:c", 1, "long", ":x:c"},
        {"a:", 1, "-", "a:"}, {"a:b", UINT32_MAX, "-", "a:b"}, {"a:b", 4, "-", "a:b:::x"},
    };
    for (const auto& c : cases) {
        Attribute attribute("key", c.value);
        CText out("-");  // stays when there is none
        EXPECT_EQ(attribute.getValueListElement(c.index, out), c.element != "-") << c.value;
        EXPECT_EQ(out.GetTextEx(), c.element) << c.value;
        EXPECT_EQ(attribute.updateValueListElement(c.index, "x"), c.value != c.changed) << c.value;
        EXPECT_EQ(attribute.value().GetTextEx(), c.changed) << c.value;
    }
    EXPECT_EQ(Attribute("key", " a : b:").getValueListElementCount(), 3u);
}

TEST(Stanza, LooksUpByKeyOccurrenceAndPosition) {
    Stanza stanza("Site", listOf({{"Key", ""}, {"Port", "80"}, {"port", "81"}, {"", "1"}}));
    CText out("before");
    EXPECT_TRUE(stanza.getValue("KEY", out) && out.IsEmpty() && !stanza.getValue("key", 1, out));
    EXPECT_TRUE(stanza.getValue("PORT", out) && out == "80" && stanza.getNumOccurrences("port") == 2);
    EXPECT_TRUE(stanza.getValue("port", 2, out) && out == "81");
    EXPECT_FALSE(stanza.getValue("port", 3, out) || !out.IsEmpty() || stanza.getValue("port", 0, out));
    EXPECT_TRUE(stanza.getAttributeKey(0, out) && out == "Key" && stanza.getAttributeValue(2, out));
    EXPECT_FALSE(stanza.getAttributeValue(UINT32_MAX, out) || !out.IsEmpty());
    EXPECT_FALSE(stanza.findValue("") || stanza.findValue(nullptr) || stanza.findValue("por"));
}

TEST(Stanza, ChangesTheFirstOfAKeyAndAppendsWhatIsNew) {
    Stanza stanza("s", listOf({{"A", "1"}, {"b", "2"}, {"a", "3"}, {"C", "4"}})), copy(stanza);
    Stanza other("o", listOf({{"c", "5"}, {"K", "6"}, {"k", "7"}, {"b", nullptr}, {"", "8"}}));
    EXPECT_TRUE(stanza.mergeStanza(other));
    EXPECT_TRUE(stanza.changeValue("A", "x"));
    EXPECT_TRUE(stanza.changeValue("n", "y"));
    EXPECT_EQ(imageOf(stanza), "A=x|b=|a=3|C=5|K=7|=8|n=y|");
    EXPECT_TRUE(copy.removeKey("c"));
    EXPECT_TRUE(copy.addValue("B", "9"));
    EXPECT_TRUE(copy.removeKey("a"));
    EXPECT_FALSE(copy.removeKey("none") || copy.removeKey(""));
    EXPECT_EQ(imageOf(copy), "b=2|a=3|B=9|");
}

TEST(Stanza, AddsAndGetsAnAttributeList) {
    Stanza stanza("s", listOf({{"B", "9"}}));
    AttributeList in = listOf({{"A", "1"}, {"B", "2"}}), out = listOf({{"old", "1"}});
    EXPECT_TRUE(stanza.addAttributeList("L", in));
    EXPECT_TRUE(stanza.getAttributeList("l", out));
    EXPECT_EQ(imageOf(stanza), "B=2|L=A:B|A=1|");
    EXPECT_EQ(out.length(), 2u);
    EXPECT_STREQ(out.getValue("b"), "2");
}

TEST(Stanza, RemovesAndChangesTheNamedAttributesAndTheirList) {
    Stanza stanza("s", listOf({{"A", "1"}, {"L", "L:A:A::X"}, {"B", "2"}, {"a", "3"}, {"l", "A:B"}}));
    EXPECT_TRUE(stanza.removeAttributeList("l"));
    EXPECT_EQ(imageOf(stanza), "B=2|l=A:B|");
    AttributeList in = listOf({{"B", "5"}, {"C", "6"}});
    EXPECT_FALSE(stanza.changeAttributeList("M", in));
    EXPECT_TRUE(stanza.changeAttributeList("L", in));
    EXPECT_EQ(imageOf(stanza), "L=B:C|B=5|C=6|");
}

TEST(Stanza, CopiesAllAttributesOfAnotherOrItself) {
    Stanza other("o", listOf({{"A", "1"}})), stanza("s", listOf({{"B", "2"}}));
    EXPECT_TRUE(stanza.copyAttributeList(other));
    EXPECT_TRUE(stanza.copyAttributeList(stanza));
    EXPECT_EQ(imageOf(stanza), "A=1|");
}
