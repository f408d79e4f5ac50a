// Attribute: keys, values and value lists.
#include "config/Attribute.h"

#include <cstring>

namespace {

// Where element index of a value begins; null when it cannot be read.
const char* elementAt(const char* value, std::uint32_t index) {
    for (; index > 0 && *value != '\0'; ++value) {
        if (*value == ':') --index;
    }
    return *value != '\0' ? value : nullptr;
}

std::uint32_t elementLength(const char* element) {
    return static_cast<std::uint32_t>(std::strcspn(element, ":"));
}

}  // namespace

Attribute::Attribute(const char* key, const char* value) : key_(key), value_(value) {}

bool Attribute::updateValue(const char* value) {
    value_ = value;
    return true;
}

void Attribute::clearAttribute() {
    key_.Clear();
    value_.Clear();
}

bool Attribute::operator<(const Attribute& other) const {
    return key_ < other.key_;
}

bool Attribute::operator==(const Attribute& other) const {
    return key_ == other.key_;
}

bool Attribute::operator==(const char* key) const {
    return !key_.IsEmpty() && key_ == key;
}

CText& Attribute::getValue(CText& out) const {
    out.Clear();
    if (!value_.IsEmpty()) out = value_;
    return out;
}

std::uint32_t Attribute::getValueListElementCount() const {
    if (value_.IsEmpty()) return 0;
    std::uint32_t count = 1;
    for (const char* c = value_.GetTextEx(); *c != '\0'; ++c) {
        if (*c == ':') ++count;
    }
    return count;
}

bool Attribute::getValueListElement(std::uint32_t index, CText& out) const {
    const char* element = elementAt(value_.GetTextEx(), index);
    if (element == nullptr) return false;
    const std::uint32_t length = elementLength(element);
    if (!out.SetBufferSize(length + 1)) return false;
    out.SetEqualTo(element, length, 0);
    return true;
}

bool Attribute::updateValueListElement(std::uint32_t index, const char* text) {
    if (value_.IsEmpty()) return false;

    std::uint32_t position = value_.Length();
    std::uint32_t replaced = 0;
    std::uint32_t colons = 0;
    const std::uint32_t count = getValueListElementCount();
    if (index >= count) {
        colons = index - count + 1;
    } else {
        const char* element = elementAt(value_.GetTextEx(), index);
        if (element == nullptr) return false;
        position = static_cast<std::uint32_t>(element - value_.GetTextEx());
        replaced = elementLength(element);
    }

    const std::uint64_t inserted = std::uint64_t{colons} + (text != nullptr ? std::strlen(text) : 0);
    const std::uint64_t length = value_.Length() - replaced + inserted;
    if (length >= CText::kNotFound) return false;

    CText replacement;  // of its own, because text may lie inside the value
    replacement.Pad(':', colons, true);
    replacement += text;
    if (replacement.Length() != inserted) return false;
    value_.Replace(position, replaced, replacement.GetText(), replacement.Length());
    return value_.Length() == length;
}
