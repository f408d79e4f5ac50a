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

namespace {

bool isOneOf(const CText& value, const char* words) {
    for (const char* word = words; *word != '\0';) {
        const std::size_t length = std::strcspn(word, "|");
        if (value == CText(word, static_cast<std::uint32_t>(length))) return true;
        word += length + (word[length] == '|' ? 1 : 0);
    }
    return false;
}

}  // namespace

CText& ListIgnoredKeys(Stanza& section, CText& out) {
    out.Clear();
    CText value;
    for (const ClientKey* key : kClientKeys) {
        if (!section.getValue(key->name, value) || value.IsEmpty()) continue;
        const bool isIgnored = (key->kind == KeyKind::kWord && !isOneOf(value, key->words)) ||
                               (key->kind == KeyKind::kNumber && NumberValue(section, *key) == 0);
        if (!isIgnored) continue;
        if (!out.IsEmpty()) out += ',';
        out += key->name;
    }
    return out;
}
