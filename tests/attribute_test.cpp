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
using support::Pairs;

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
    const struct {
        const char* value;
        std::uint32_t count;
        std::vector<const char*> elements;  // null: cannot be read
    } cases[] = {
        {"", 0, {nullptr, nullptr}},
        {"a", 1, {"a", nullptr}},
        {"h1,80:h2,81", 2, {"h1,80", "h2,81", nullptr}},
        {"a::b", 3, {"a", "", "b", nullptr}},
        {":", 2, {"", nullptr, nullptr}},
        {"a:", 2, {"a", nullptr, nullptr}},
        {" a : b ", 2, {" a ", " b ", nullptr}},
    };
    for (const auto& c : cases) {
        const Attribute attribute("key", c.value);
        EXPECT_EQ(attribute.getValueListElementCount(), c.count) << c.value;
        for (std::uint32_t i = 0; i < c.elements.size(); ++i) {
            CText out("before");
            EXPECT_EQ(attribute.getValueListElement(i, out), c.elements[i] != nullptr) << c.value << i;
            EXPECT_STREQ(out.GetTextEx(), c.elements[i] != nullptr ? c.elements[i] : "before")
                << c.value << i;
        }
    }
}

TEST(Attribute, ChangesOrAppendsAnElement) {
    const struct {
        const char* value;
        std::uint32_t index;
        const char* text;
        bool done;
        const char* after;
    } cases[] = {
        {"", 0, "x", false, ""},
        {"a:", 1, "x", false, "a:"},
        {"a:b", 4294967295u, "x", false, "a:b"},
        {"a:b", 2, "x", true, "a:b:x"},
        {"a:b", 4, "x", true, "a:b:::x"},
        {"a:", 2, "x", true, "a::x"},
        {"a", 1, "", true, "a:"},
        {"a", 1, nullptr, true, "a:"},
        {":b", 0, "x", true, "x:b"},
        {"one:two:three", 1, "a longer one, for which the value has to grow", true,
         "one:a longer one, for which the value has to grow:three"},
        {"one:two:three", 2, "", true, "one:two:"},
        {"one", 0, nullptr, true, ""},
    };
    for (const auto& c : cases) {
        Attribute attribute("key", c.value);
        EXPECT_EQ(attribute.updateValueListElement(c.index, c.text), c.done) << c.value << c.index;
        EXPECT_STREQ(attribute.value().GetTextEx(), c.after) << c.value << c.index;
    }
}

TEST(Attribute, TakesAnElementFromItsOwnValue) {
    Attribute attribute("key", "a:the whole value");
    EXPECT_TRUE(attribute.updateValueListElement(0, attribute.value().GetText()));
    EXPECT_STREQ(attribute.value().GetTextEx(), "a:the whole value:the whole value");
    EXPECT_TRUE(attribute.getValueListElement(1, attribute.value()));
    EXPECT_STREQ(attribute.value().GetTextEx(), "the whole value");
}

TEST(Attribute, ComparesByKeyWithoutRegardToCase) {
    const Attribute empty("", "1"), lower("port", "1"), upper("PORT", "2"), other("porz", "1");
    EXPECT_TRUE(lower == upper && lower == "Port" && empty == Attribute());
    EXPECT_FALSE(lower == other || lower == empty || lower == "" || lower == nullptr || empty == "");
    EXPECT_TRUE(lower < other && upper < other && empty < lower);
    EXPECT_FALSE(lower < upper || upper < lower || other < lower || lower < empty || empty < Attribute());
}

TEST(AttributeList, KeepsDuplicatesAndFindsTheFirst) {
    const AttributeList list = listOf({{"A", "1"}, {"Port", "80"}, {"a", "2"}});
    EXPECT_EQ(list.numOccurrences("a"), 2);
    EXPECT_STREQ(list.getValue("a"), "1");
    EXPECT_STREQ(list.getValue("a", 2), "2");
    EXPECT_EQ(list.getValue("a", 3), nullptr);
    EXPECT_EQ(list.getValue("a", 0), nullptr);
    EXPECT_EQ(list.getValue("a", -1), nullptr);
    EXPECT_STREQ(list.getValue("PORT"), "80");
    EXPECT_FALSE(list.findAttribute("Por") || list.findAttribute("") || list.findAttribute(nullptr));
}

TEST(AttributeList, EmptyKeyIsNeverFound) {
    AttributeList list = listOf({{"", "v"}});
    EXPECT_EQ(list.getAttribute(""), nullptr);
    EXPECT_EQ(list.getAttribute(nullptr), nullptr);
    EXPECT_EQ(list.numOccurrences(""), 0);
    EXPECT_FALSE(list.removeAttribute(""));
    EXPECT_TRUE(list.changeAttribute("", "w"));
    EXPECT_EQ(imageOf(list), "=v|=w|");
}

TEST(AttributeList, WalksByPosition) {
    const AttributeList list = listOf({{"A", "1"}, {"B", nullptr}});
    EXPECT_STREQ(list.getKey(1), "B");
    EXPECT_EQ(list.getKey(2), nullptr);
    EXPECT_EQ(list.getKey(4294967295u), nullptr);
    EXPECT_STREQ(list.getValue(-7), "1");
    EXPECT_EQ(list.getValue(1), nullptr);  // it never held a character
    EXPECT_EQ(list.getAttributeIndex(2), nullptr);
    EXPECT_EQ(AttributeList().getAttributeIndex(0), nullptr);
}

TEST(AttributeList, ChangesAndRemovesOnlyTheFirst) {
    AttributeList list = listOf({{"A", "1"}, {"a", "2"}, {"B", "3"}});
    EXPECT_TRUE(list.changeAttribute("a", "x") && list.changeAttribute("C", "y"));
    EXPECT_EQ(imageOf(list), "A=x|a=2|B=3|C=y|");
    EXPECT_TRUE(list.removeAttribute("a"));
    EXPECT_FALSE(list.removeAttribute("D"));
    EXPECT_EQ(imageOf(list), "a=2|B=3|C=y|");
    EXPECT_TRUE(list.removeAllAttributes());
    EXPECT_EQ(imageOf(list), "");
}

TEST(AttributeList, AddsACopyUnlessItsKeyHasAValue) {
    AttributeList list = listOf({{"A", "1"}, {"B", nullptr}});
    EXPECT_FALSE(list.addAttribute(Attribute("a", "2")));
    EXPECT_TRUE(list.addAttribute(Attribute("b", "3")));  // B never had one
    EXPECT_TRUE(list.addAttribute(Attribute("", "4")) && list.addAttribute(Attribute("", "5")));
    EXPECT_EQ(imageOf(list), "A=1|B=|b=3|=4|=5|");
}

TEST(AttributeList, ResolvesTheNamesOfAListAttribute) {
    const AttributeList list = listOf({{"L", "B::nobody:a:"}, {"A", "1"}, {"B", "2"}});
    Lists<Attribute*> out;
    Attribute stranger;
    out.append(&stranger);
    EXPECT_EQ(list.getAllAttributes("nobody", out).length(), 1u);
    std::vector<Attribute*> named;
    for (ListIterators<Attribute*> i(list.getAllAttributes("l", out)); !i.isDone(); i.next())
        named.push_back(i.currentItem());
    EXPECT_EQ(named, (std::vector<Attribute*>{list.getAttribute("B"), list.getAttribute("A")}));
}

TEST(AttributeList, MergesSoThatTheOtherWins) {
    const struct {
        Pairs target, other;
        const char* merged;
    } cases[] = {
        {{{"A", "1"}, {"B", "2"}}, {{"b", "3"}, {"C", "4"}}, "A=1|B=3|C=4|"},
        {{}, {{"K", "1"}, {"k", "2"}}, "K=2|"},
        {{{"A", "1"}, {"a", "2"}}, {{"a", nullptr}}, "A=|a=2|"},
        {{{"", "1"}}, {{"", "2"}}, "=1|=2|"},
    };
    for (const auto& c : cases) {
        AttributeList list = listOf(c.target);
        EXPECT_TRUE(list.mergeAttributeList(listOf(c.other)));
        EXPECT_EQ(imageOf(list), c.merged);
    }
    AttributeList itself = listOf({{"A", "1"}, {"", "2"}, {"a", "3"}});
    EXPECT_TRUE(itself.mergeAttributeList(itself));
    EXPECT_EQ(imageOf(itself), "A=3|=2|a=3|=2|");
}
