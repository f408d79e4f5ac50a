// Lists<T> and its iterator: order, removal, misuse.
#include "Server/General/ZorbiLists.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Equal by the first letter alone.
struct Item {
    std::string text;
    bool operator==(const Item& other) const { return text[0] == other.text[0]; }
};

std::string walk(const Lists<Item>& list) {
    std::string all;
    for (ListIterators<Item> it(list); !it.isDone(); it.next())
        all += it.currentItem().text + " ";
    return all + std::to_string(list.length());
}

TEST(Lists, KeepTheirOrderAndAppendAtTheEndAfterAnyRemoval) {
    Lists<Item> list, copy;
    EXPECT_THROW(list.removeHead(), Lists<Item>::EmptyError);
    for (const char* text : {"a1", "b2", "a3"})
        list.append({text});
    copy = list;
    copy = *&copy;
    list.remove({"x"});
    list.remove({"a3"});  // the first equal one goes
    EXPECT_EQ(walk(list), "b2 a3 2");
    list.remove({"a"});
    list.append({"c4"});
    EXPECT_EQ(walk(list), "b2 c4 2");
    list.removeHead();
    list.removeHead();
    list.append({"d5"});
    EXPECT_EQ(walk(list), "d5 1");
    list.clear();
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(walk(copy), "a1 b2 a3 3");
}

TEST(Lists, IteratorChangesItemsInPlaceAndRefusesToPassTheEnd) {
    Lists<Item> list;
    list.append({"a"});
    ListIterators<Item> it(list);
    it.currentItem().text = "z";
    it.next();
    EXPECT_THROW(it.next(), ListIterators<Item>::EndOfListError);
    it.reset();
    EXPECT_EQ(it.currentItem().text, "z");
}

}  // namespace
