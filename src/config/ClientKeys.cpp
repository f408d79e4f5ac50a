#include "config/ClientKeys.h"

#include <array>
#include <cstring>
#include <utility>

namespace {

bool isOneOf(const CText& value, const char* words) {
    for (const char* word = words; *word != '\0';) {
        const std::size_t length = std::strcspn(word, "|");
        if (value == CText(word, static_cast<std::uint32_t>(length))) return true;
        word += length + (word[length] == '|' ? 1 : 0);
    }
    return false;
}

void addIfIgnored(Stanza& section, CText& out, const char* name, const char* words, std::uint32_t least,
                  std::uint32_t most) {
    CText value;
    if (!section.getValue(name, value) || value.IsEmpty()) return;
    if (most != 0 ? NumberValue(section, name, least, most) != 0 : isOneOf(value, words)) return;
    if (!out.IsEmpty()) out += ',';
    out += name;
}

template <std::size_t... I>
void listIgnored(Stanza& section, CText& out, std::index_sequence<I...>) {
    constexpr auto canBeIgnored = [](const ClientKey& key) {
        return key.kind == KeyKind::kWord || key.kind == KeyKind::kNumber;
    };
    ((canBeIgnored(*kClientKeys[I]) ? addIfIgnored(section, out, kClientKeys[I]->name, kClientKeys[I]->words,
                                                   kClientKeys[I]->least, kClientKeys[I]->most)
                                    : void()),
     ...);
}

}  // namespace

bool IsTrueValue(Stanza& section, const char* key) {
    CText value;
    return section.getValue(key, value) && !value.IsEmpty() &&
           std::strchr(kTrueBeginnings, *value.GetTextEx()) != nullptr;
}

std::uint32_t NumberValue(Stanza& section, const char* key, std::uint32_t least, std::uint32_t most) {
    CText value;
    section.getValue(key, value);
    const char* text = value.GetTextEx();
    const std::size_t digits = std::strspn(text, "0123456789");
    if (digits == 0 || text[digits] != '\0') return 0;
    const std::uint32_t number = value.GetTextAsULong();
    return number >= least && number <= most ? number : 0;
}

bool IsWordValue(Stanza& section, const char* key, const char* word) {
    CText value;
    return section.getValue(key, value) && value == word;
}

CText& ListIgnoredKeys(Stanza& section, CText& out) {
    out.Clear();
    listIgnored(section, out, std::make_index_sequence<std::size(kClientKeys)>());
    return out;
}
