// AttributeList: the ordered attributes of one configuration section.
#pragma once

#include <cstdint>

#include "Server/General/ZorbiLists.h"
#include "config/Attribute.h"

// Keeps insertion order and may hold a key more than once; look-ups by key find the first. Pointers handed
// out point into the list and stay valid until the attribute is removed. Text results are null when there is
// no such attribute, or when that text never held a character. Threads: one at a time (Stanza locks).
class AttributeList {
  public:
    AttributeList() = default;
    AttributeList(const AttributeList& other) = default;
    AttributeList& operator=(const AttributeList& other) = default;
    virtual ~AttributeList() = default;

    const Lists<Attribute>& attributes() const { return attributes_; }
    std::uint32_t length() const { return attributes_.length(); }

    // Appends in constant time, even a key that is there. Always true.
    bool addAttribute(const char* key, const char* value);
    // Appends a copy unless getValue of its key yields a text: then false, and nothing is added.
    bool addAttribute(const Attribute& attribute);
    // Sets the first of that key, or appends a new one. Always true.
    bool changeAttribute(const char* key, const char* value);
    bool removeAttribute(const char* key);  // the first of that key; false when there is none
    bool removeAllAttributes();             // always true

    bool findAttribute(const char* key) const;
    Attribute* getAttribute(const char* key) const;  // in place; null for a null, empty or absent key
    const char* getValue(const char* key) const;
    const char* getValue(const char* key, int n) const;  // the n-th occurrence, from 1
    int numOccurrences(const char* key) const;

    Attribute* attributeAt(std::uint32_t position) const;  // from 0; null past the end
    Attribute* getAttributeIndex(long index) const;        // likewise; a negative index gives the first
    const char* getKey(std::uint32_t index) const;
    const char* getValue(int index) const;

    // Takes the value of the attribute key as a list of names and fills out with pointers to the attributes
    // so named, in that order; names without an attribute are skipped. out is untouched when there is no
    // attribute key.
    Lists<Attribute*>& getAllAttributes(const char* key, Lists<Attribute*>& out) const;

    // Takes every attribute of other over: present keys take its value, new ones are appended. Always true.
    bool mergeAttributeList(const AttributeList& other);

  private:
    Lists<Attribute> attributes_;
};
