// Lists<T> and its iterator: order, ownership, removal, misuse.
#include "Server/General/ZorbiLists.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace {

bool memoryIsShort = false;

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return memoryIsShort ? nullptr : ::operator new(size);
}

namespace {

// Equal by name alone, and counted, so that a lost or doubled destruction shows.
struct Item {
    Item(const char* n = "", int v = 0) : name(n), value(v) { ++alive; }
    Item(const Item& other) : name(other.name), value(other.value) { ++alive; }
    Item& operator=(const Item&) = default;
    ~Item() { --alive; }
    bool operator==(const Item& other) const { return name == other.name; }

    std::string name;
    int value;
    static int alive;
};
int Item::alive = 0;

std::string walk(const Lists<Item>& list) {
    std::string all;
    for (ListIterators<Item> it(list); !it.isDone(); it.next())
        all += it.currentItem().name + std::to_string(it.currentItem().value) + " ";
    return all;
}

class ListTest : public testing::Test {
  protected:
    ListTest() {
        list.append(Item("a", 1));
        list.insertAtTail(Item("b", 2));
        list.append(Item("a", 3));
    }
    Lists<Item> list;
};

TEST(Lists, EmptyListIsDoneAtOnceAndRefusesToLoseItsHead) {
    Lists<int> list;
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.length(), 0u);
    EXPECT_TRUE(ListIterators<int>(list).isDone());
    list.remove(1);
    EXPECT_THROW(list.removeHead(), Lists<int>::EmptyError);
}

TEST_F(ListTest, IteratorYieldsItemsInOrderAndChangesThemInPlace) {
    EXPECT_EQ(walk(list), "a1 b2 a3 ");
    ListIterators<Item> it(list);
    it.next();
    it.currentItem().value = 9;
    it.next();
    it.next();
    EXPECT_TRUE(it.isDone());
    EXPECT_THROW(it.next(), ListIterators<Item>::EndOfListError);
    it.reset();
    EXPECT_EQ(it.currentItem().value, 1);
    EXPECT_EQ(walk(list), "a1 b9 a3 ");
}

TEST_F(ListTest, CopiesAreIndependent) {
    Lists<Item> copy(list), assigned;
    assigned.append(Item("old"));
    assigned = list;
    list.clear();
    list.append(Item("z"));
    EXPECT_EQ(walk(list), "z0 ");
    copy.append(Item("d", 4));
    assigned.append(Item("e", 5));
    EXPECT_EQ(walk(copy), "a1 b2 a3 d4 ");
    EXPECT_EQ(walk(assigned), "a1 b2 a3 e5 ");
}

TEST_F(ListTest, SelfAssignmentChangesNothing) {
    Lists<Item>& self = list;
    list = self;
    EXPECT_EQ(walk(list), "a1 b2 a3 ");
}

TEST_F(ListTest, RemoveTakesTheFirstEqualItem) {
    list.remove(Item("none"));
    EXPECT_EQ(list.length(), 3u);
    list.remove(Item("a", 3));
    EXPECT_EQ(walk(list), "b2 a3 ");
}

// Whatever place an item is removed from, the next one is appended at the end.
TEST_F(ListTest, AppendsAfterRemovalAtAnyPlace) {
    list.remove(Item("b"));
    list.removeHead();
    list.append(Item("c", 4));
    EXPECT_EQ(walk(list), "a3 c4 ");
    list.remove(Item("c"));
    list.append(Item("d", 5));
    EXPECT_EQ(walk(list), "a3 d5 ");
    list.removeHead();
    list.removeHead();
    list.append(Item("e", 6));
    EXPECT_EQ(walk(list), "e6 ");
    EXPECT_EQ(list.length(), 1u);
}

TEST(Lists, OwnsItemsButNotWhatPointersPointTo) {
    const int before = Item::alive;
    {
        Item stays("stays");
        Lists<Item> items;
        items.append(stays);
        items.append(stays);
        EXPECT_EQ(Item::alive, before + 3);
        items.removeHead();
        EXPECT_EQ(Item::alive, before + 2);
        Lists<Item*> pointers;
        pointers.append(&stays);
        pointers.append(nullptr);
        pointers.remove(&stays);
        EXPECT_EQ(pointers.length(), 1u);
        pointers.clear();
        EXPECT_EQ(Item::alive, before + 2);
        items.append(Item("last"));
    }
    EXPECT_EQ(Item::alive, before);
}

TEST(ListsDeathTest, ShortMemoryStopsTheProcessWithAnAssertion) {
    Lists<Item*> list;
    EXPECT_DEATH(
        {
            memoryIsShort = true;
            list.append(nullptr);
        },
        "Server/General/ZorbiLists.*insertAtTail\\(const Items ?&\\).*node != 0");
}

}  // namespace
