#include "config/ClientKeys.h"

#include <cstring>

bool IsTrueValue(Stanza& section, const ClientKey& key) {
    CText value;
    return section.getValue(key.name, value) && !value.IsEmpty() &&
           std::strchr(kTrueBeginnings, *value.GetTextEx()) != nullptr;
}

std::uint32_t NumberValue(Stanza& section, const ClientKey& key) {
    CText value;
    section.getValue(key.name, value);
    const char* text = value.GetTextEx();
    const std::size_t digits = std::strspn(text, "0123456789");
    if (digits == 0 || text[digits] != '\0') return 0;
    const std::uint32_t number = value.GetTextAsULong();
    return number >= key.least && number <= key.most ? number : 0;
}

bool IsWordValue(Stanza& section, const ClientKey& key, const char* word) {
    CText value;
    return section.getValue(key.name, value) && value == word;
}
