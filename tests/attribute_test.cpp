// Attribute and AttributeList: value lists, look-ups, changes, merging.
#include "config/Attribute.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "config/AttributeList.h"
#include "support/Attributes.h"

namespace {

using support::listOf;

// "key=value|" for each attribute, in order.
std::string imageOf(const AttributeList& list) {
    std::string image;
    for (long i = 0; i < static_cast<long>(list.length()); ++i) {
        const Attribute* attribute = list.getAttributeIndex(i);
        image += std::string(attribute->key().GetTextEx()) + "=" + attribute->value().GetTextEx() + "|";
    }
    return image;
}

}  // namespace

TEST(Attribute, ReadsTheElementsOfAValueList) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {"-"}}, {"a::b", {"a", "", "b", "-"}}, {":", {"", "-"}}, {" a : b:", {" a ", " b", "-"}}};
    for (const auto& [value, elements] : cases) {
        for (std::uint32_t i = 0; i < elements.size(); ++i) {
            CText out("-");  // stays when there is none
            EXPECT_EQ(Attribute("key", value).getValueListElement(i, out), elements[i] != "-") << value << i;
            EXPECT_EQ(out.GetTextEx(), elements[i]) << value << i;
        }
    }
    EXPECT_EQ(Attribute("key", " a : b:").getValueListElementCount(), 3u);
}

TEST(Attribute, ChangesOrAppendsAnElement) {
    const struct {
        const char* value;
        std::uint32_t index;
        const char* text;
        const char* after;
    } cases[] = {{"", 0, "x", ""},
                 {"a:", 1, "x", "a:"},
                 {"a:b", UINT32_MAX, "x", "a:b"},
                 {"a:b", 4, "x", "a:b:::x"},
                 {"a:", 2, "x", "a::x"},
                 {":b", 0, "x", "x:b"},
                 {"a", 1, nullptr, "a:"},
                 {"a:b:c", 1, "much longer", "a:much longer:c"}};
    for (const auto& c : cases) {
        Attribute attribute("key", c.value);
        EXPECT_EQ(attribute.updateValueListElement(c.index, c.text), std::string(c.value) != c.after)
            << c.value << c.index;
        EXPECT_STREQ(attribute.value().GetTextEx(), c.after) << c.value << c.index;
    }
}

TEST(Attribute, ComparesByKeyWithoutRegardToCase) {
    const Attribute empty("", "1"), lower("port", "1"), upper("PORT", "2"), other("porz", "1");
    EXPECT_TRUE(lower == upper && lower == "Port" && empty == Attribute() && upper < other && empty < lower);
    EXPECT_FALSE(lower == other || lower == nullptr || empty == "" || lower < upper || empty < Attribute());
}

TEST(AttributeList, KeepsDuplicatesAndFindsTheFirst) {
    AttributeList list = listOf({{"A", "1"}, {"B", nullptr}, {"a", "2"}, {"", "3"}});
    EXPECT_EQ(list.numOccurrences("a"), 2);
    EXPECT_STREQ(list.getValue("a", 2), "2");
    EXPECT_FALSE(list.getValue("a", 3) || list.getValue("a", 0) || list.getValue("B"));
    EXPECT_FALSE(list.findAttribute("") || list.findAttribute(nullptr) || list.getAttributeIndex(4));
    EXPECT_FALSE(list.addAttribute(Attribute("a", "4")));
    EXPECT_TRUE(list.addAttribute(Attribute("b", "5")));  // B never had a value
    EXPECT_TRUE(list.changeAttribute("a", "x") && list.changeAttribute("C", "y") &&
                list.removeAttribute("b"));
    EXPECT_FALSE(list.removeAttribute("") || list.removeAttribute("D"));
    EXPECT_EQ(imageOf(list), "A=x|a=2|=3|b=5|C=y|");
    list.changeAttribute("C", "b::nobody:a:");
    Lists<Attribute*> named;
    EXPECT_EQ(list.getAllAttributes("c", named).length(), 2u);
}

TEST(AttributeList, MergesSoThatTheOtherWins) {
    AttributeList list = listOf({{"A", "1"}, {"a", "2"}, {"B", "3"}, {"", "4"}});
    EXPECT_TRUE(
        list.mergeAttributeList(listOf({{"b", nullptr}, {"a", "5"}, {"", "6"}, {"K", "7"}, {"k", "8"}})));
    EXPECT_EQ(imageOf(list), "A=5|a=2|B=|=4|=6|K=8|");
}
