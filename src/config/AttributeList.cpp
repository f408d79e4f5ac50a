// AttributeList: look-ups, changes and merging.
#include "config/AttributeList.h"

#include <algorithm>

namespace {

const char* keyOf(const Attribute* attribute) {
    return attribute != nullptr ? attribute->key().GetText() : nullptr;
}

const char* valueOf(const Attribute* attribute) {
    return attribute != nullptr ? attribute->value().GetText() : nullptr;
}

Attribute* findOccurrence(const Lists<Attribute>& attributes, const char* key, int n) {
    for (ListIterators<Attribute> i(attributes); !i.isDone(); i.next()) {
        if (i.currentItem() == key && --n == 0) return &i.currentItem();
    }
    return nullptr;
}

}  // namespace

bool AttributeList::addAttribute(const char* key, const char* value) {
    attributes_.append(Attribute(key, value));
    return true;
}

bool AttributeList::addAttribute(const Attribute& attribute) {
    if (getValue(attribute.key().GetText()) != nullptr) return false;
    attributes_.append(attribute);
    return true;
}

bool AttributeList::changeAttribute(const char* key, const char* value) {
    Attribute* present = getAttribute(key);
    return present != nullptr ? present->updateValue(value) : addAttribute(key, value);
}

bool AttributeList::removeAttribute(const char* key) {
    const Attribute* first = getAttribute(key);
    if (first == nullptr) return false;
    attributes_.remove(*first);
    return true;
}

bool AttributeList::removeAllAttributes() {
    attributes_.clear();
    return true;
}

bool AttributeList::findAttribute(const char* key) const {
    return getAttribute(key) != nullptr;
}

Attribute* AttributeList::getAttribute(const char* key) const {
    return findOccurrence(attributes_, key, 1);
}

const char* AttributeList::getValue(const char* key) const {
    return valueOf(getAttribute(key));
}

const char* AttributeList::getValue(const char* key, int n) const {
    return n > 0 ? valueOf(findOccurrence(attributes_, key, n)) : nullptr;
}

int AttributeList::numOccurrences(const char* key) const {
    int count = 0;
    for (ListIterators<Attribute> i(attributes_); !i.isDone(); i.next()) {
        if (i.currentItem() == key) ++count;
    }
    return count;
}

Attribute* AttributeList::attributeAt(std::uint32_t position) const {
    for (ListIterators<Attribute> i(attributes_); !i.isDone(); i.next()) {
        if (position-- == 0) return &i.currentItem();
    }
    return nullptr;
}

Attribute* AttributeList::getAttributeIndex(long index) const {
    constexpr std::int64_t kLast = 0xFFFFFFFF;
    return attributeAt(static_cast<std::uint32_t>(std::clamp<std::int64_t>(index, 0, kLast)));
}

const char* AttributeList::getKey(std::uint32_t index) const {
    return keyOf(attributeAt(index));
}

const char* AttributeList::getValue(int index) const {
    return valueOf(getAttributeIndex(index));
}

Lists<Attribute*>& AttributeList::getAllAttributes(const char* key, Lists<Attribute*>& out) const {
    const Attribute* list = getAttribute(key);
    if (list == nullptr) return out;
    out.clear();
    CText name;
    for (std::uint32_t i = 0; list->getValueListElement(i, name); ++i) {
        Attribute* named = getAttribute(name.GetTextEx());
        if (named != nullptr) out.append(named);
    }
    return out;
}

bool AttributeList::mergeAttributeList(const AttributeList& other) {
    // A list merged into itself would grow under its own iterator.
    if (this == &other) return mergeAttributeList(AttributeList(other));
    for (ListIterators<Attribute> i(other.attributes_); !i.isDone(); i.next()) {
        const Attribute& taken = i.currentItem();
        Attribute* present = getAttribute(taken.key().GetText());
        if (present != nullptr) {
            present->updateValue(taken.value().GetText());
        } else {
            attributes_.append(taken);
        }
    }
    return true;
}
