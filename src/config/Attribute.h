// Attribute: one named setting of a configuration section; it also travels on the wire.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"

// A key and a value. Keys compare without regard to case. The value may be read as a value list: elements
// separated by ":", taken as they stand; an empty value has none, and the empty element after a trailing ":"
// is counted but cannot be read or changed.
class Attribute {
  public:
    Attribute() = default;
    Attribute(const char* key, const char* value);  // null gives an empty text
    Attribute(const Attribute& other) = default;
    Attribute& operator=(const Attribute& other) = default;
    virtual ~Attribute() = default;

    CText& key() { return key_; }
    const CText& key() const { return key_; }
    CText& value() { return value_; }
    const CText& value() const { return value_; }

    bool updateValue(const char* value);  // always true
    void clearAttribute();

    bool operator<(const Attribute& other) const;   // by key; an empty key comes first
    bool operator==(const Attribute& other) const;  // by key; two empty keys are equal
    bool operator==(const char* key) const;         // an empty key equals nothing

    // Empties out, then copies the value into it. Returns out.
    CText& getValue(CText& out) const;

    std::uint32_t getValueListElementCount() const;

    // Copies element index (from 0) into out; false, and out as it was, when it cannot be read or has no
    // room.
    bool getValueListElement(std::uint32_t index, CText& out) const;

    // Replaces element index, or appends it, with as many colons before it as it takes. False, with nothing
    // changed, for an empty value, for the empty element after a trailing ":", and when the value cannot grow
    // that long.
    bool updateValueListElement(std::uint32_t index, const char* text);

  private:
    CText key_;
    CText value_;
};
