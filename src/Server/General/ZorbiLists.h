// Lists<T>: the singly linked list of the configuration classes, ListIterators<T>: its forward iterator.
#pragma once

#include <cassert>
#include <cstdint>
#include <new>

template <class Items>
class ListIterators;

// An ordered list that owns a copy of each item. For pointer items it owns the nodes only, never what they
// point to. Appending takes constant time, length() walks the list. Misuse throws; a caller tests isEmpty()
// or isDone() first. Threads: one at a time.
template <class Items>
class Lists {
  public:
    class EmptyError {
      public:
        virtual ~EmptyError() = default;
    };

    Lists() = default;
    Lists(const Lists& other) { appendAll(other); }
    Lists& operator=(const Lists& other) {
        if (this != &other) {
            clear();
            appendAll(other);
        }
        return *this;
    }
    virtual ~Lists() { clear(); }

    void clear() {
        while (!isEmpty())
            unlink(&head_);
    }

    bool isEmpty() const { return head_ == nullptr; }

    std::uint32_t length() const {
        std::uint32_t n = 0;
        for (const Node* node = head_; node != nullptr; node = node->next)
            ++n;
        return n;
    }

    // Appends a copy of the item; the process stops with an assertion when there is no memory for it.
    void insertAtTail(const Items& item) {
        Node* node = new (std::nothrow) Node;
        assert(node != 0);
        node->item = item;
        *tail_ = node;
        tail_ = &node->next;
    }
    void append(const Items& item) { insertAtTail(item); }

    // Throws EmptyError on an empty list.
    void removeHead() {
        if (isEmpty()) throw EmptyError();
        unlink(&head_);
    }

    // Removes the first item that equals the given one; nothing happens when there is none.
    void remove(const Items& item) {
        for (Node** link = &head_; *link != nullptr; link = &(*link)->next) {
            if ((*link)->item == item) return unlink(link);
        }
    }

  private:
    friend class ListIterators<Items>;

    struct Node {
        Node* next = nullptr;
        Items item{};
    };

    void appendAll(const Lists& other) {
        for (const Node* node = other.head_; node != nullptr; node = node->next)
            insertAtTail(node->item);
    }

    void unlink(Node** link) {
        Node* node = *link;
        *link = node->next;
        if (tail_ == &node->next) tail_ = link;
        delete node;
    }

    Node* head_ = nullptr;
    Node** tail_ = &head_;  // the link for the next appended node, so that building a list stays linear
};

// Walks a list from its head. currentItem() is writable: callers change items in place through it. An
// iterator is not used any more once its current item has been removed from the list.
template <class Items>
class ListIterators {
  public:
    class EndOfListError {
      public:
        virtual ~EndOfListError() = default;
    };

    explicit ListIterators(const Lists<Items>& list) : list_(list) { reset(); }
    virtual ~ListIterators() = default;

    void reset() { current_ = list_.head_; }
    bool isDone() const { return current_ == nullptr; }

    // REQUIRES !isDone().
    Items& currentItem() const { return current_->item; }

    // Throws EndOfListError when the walk is already past the last item.
    void next() {
        if (isDone()) throw EndOfListError();
        current_ = current_->next;
    }

  private:
    const Lists<Items>& list_;
    typename Lists<Items>::Node* current_ = nullptr;
};
