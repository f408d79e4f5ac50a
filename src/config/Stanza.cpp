// Stanza: look-ups, changes and writing of one section.
#include "config/Stanza.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "Server/Common_Classes/MemoryWatch.h"

namespace {

bool copyText(const char* text, CText& out) {
    out = text;
    return text != nullptr;
}

bool copyAttribute(const Attribute* attribute, Attribute& out) {
    if (attribute == nullptr) return false;
    out = *attribute;
    return true;
}

// The partner of c: the character of to that stands where c stands in from; 0 when c is not there.
template <std::size_t N>
char translate(char c, const char (&from)[N], const char (&to)[N]) {
    const char* found = std::find(from, from + N, c);
    return found != from + N ? to[found - from] : '\0';
}

CText joinedKeys(const AttributeList& list) {
    CText names;
    bool first = true;
    for (ListIterators<Attribute> i(list.attributes()); !i.isDone(); i.next()) {
        if (!first) names += ':';
        names += i.currentItem().key();
        first = false;
    }
    return names;
}

bool writeText(std::FILE* f, const CText& text) {
    return std::fwrite(text.GetTextEx(), 1, text.Length(), f) == text.Length();
}

}  // namespace

const char Stanza::bsEscValues[3] = {'\r', '\n', '\\'};
const char Stanza::bsEscKeys[3] = {'r', 'n', '\\'};

Stanza::Stanza(const char* name) : name_(name) {}

Stanza::Stanza(const char* name, const AttributeList& attributes) : name_(name), attributes_(attributes) {}

Stanza::Stanza(const Stanza& other) {
    MutexLock lock(other.lock_);
    name_ = other.name_;
    attributes_ = other.attributes_;
}

Stanza::~Stanza() {
    lock_.DestroyMutex();
}

// ---- identity ----

void Stanza::setStanzaName(const char* name) {
    MutexLock lock(lock_);
    name_ = name;
}

bool Stanza::isStanzaName(const CText& name) {
    MutexLock lock(lock_);
    return name_ == name;
}

bool Stanza::operator==(const Stanza& other) {
    return isStanzaName(other.getStanzaName());
}

std::uint32_t Stanza::getNumberOfAttributes() {
    MutexLock lock(lock_);
    return attributes_.length();
}

// ---- look-ups ----

int Stanza::getNumOccurrences(const char* key) {
    MutexLock lock(lock_);
    return attributes_.numOccurrences(key);
}

bool Stanza::findValue(const char* key) {
    MutexLock lock(lock_);
    return attributes_.findAttribute(key);
}

bool Stanza::getValue(const char* key, CText& out) {
    MutexLock lock(lock_);
    out.Clear();
    const Attribute* attribute = attributes_.getAttribute(key);
    if (attribute == nullptr) return false;
    attribute->getValue(out);
    return true;
}

bool Stanza::getValue(const char* key, std::uint32_t n, CText& out) {
    MutexLock lock(lock_);
    return copyText(attributes_.getValue(key, static_cast<int>(n)), out);
}

bool Stanza::getAttributeValue(std::uint32_t i, CText& out) {
    MutexLock lock(lock_);
    const Attribute* attribute = attributes_.attributeAt(i);
    return copyText(attribute != nullptr ? attribute->value().GetText() : nullptr, out);
}

bool Stanza::getAttributeKey(std::uint32_t i, CText& out) {
    MutexLock lock(lock_);
    return copyText(attributes_.getKey(i), out);
}

bool Stanza::getAttribute(const char* key, Attribute& out) {
    MutexLock lock(lock_);
    return copyAttribute(attributes_.getAttribute(key), out);
}

bool Stanza::getAttributeIndex(std::uint32_t i, Attribute& out) {
    MutexLock lock(lock_);
    return copyAttribute(attributes_.attributeAt(i), out);
}

Lists<Attribute*>& Stanza::getAllAttributes(const char* key, Lists<Attribute*>& out) {
    MutexLock lock(lock_);
    return attributes_.getAllAttributes(key, out);
}

// ---- changes ----

bool Stanza::addValue(const char* key, const char* value) {
    MutexLock lock(lock_);
    return attributes_.addAttribute(key, value);
}

bool Stanza::changeValue(const char* key, const char* value) {
    MutexLock lock(lock_);
    return attributes_.changeAttribute(key, value);
}

bool Stanza::removeKey(const char* key) {
    MutexLock lock(lock_);
    return attributes_.removeAttribute(key);
}

bool Stanza::mergeStanza(Stanza& other) {
    MutexLock lock(lock_);
    return attributes_.mergeAttributeList(other.attributes_);
}

bool Stanza::copyAttributeList(Stanza& other) {
    MutexLock lock(lock_);
    if (other.lock_.TryLock() != 0) return false;
    attributes_ = other.attributes_;
    other.lock_.UnLock();
    return true;
}

// ---- attribute lists ----

bool Stanza::getAttributeList(const char* key, AttributeList& out) {
    MutexLock lock(lock_);
    out.removeAllAttributes();
    const Attribute* list = attributes_.getAttribute(key);
    if (list == nullptr) return true;
    CText name;
    for (std::uint32_t i = 0; list->getValueListElement(i, name); ++i) {
        const Attribute* named = attributes_.getAttribute(name.GetTextEx());
        if (named != nullptr) out.addAttribute(*named);
    }
    return true;
}

bool Stanza::addAttributeList(const char* key, AttributeList& in) {
    MutexLock lock(lock_);
    if (attributes_.findAttribute(key)) return false;
    attributes_.addAttribute(key, nullptr);
    Attribute* list = attributes_.attributeAt(attributes_.length() - 1);
    attributes_.mergeAttributeList(in);
    // Last, because an attribute of in may bear the list's own key.
    return list->updateValue(joinedKeys(in).GetText());
}

bool Stanza::removeAttributeList(const char* key) {
    MutexLock lock(lock_);
    Attribute list;
    if (!getAttribute(key, list)) return true;
    CText name;
    for (std::uint32_t i = 0; list.getValueListElement(i, name); ++i) {
        if (!(list == name.GetTextEx())) attributes_.removeAttribute(name.GetTextEx());
    }
    attributes_.removeAttribute(list.key().GetText());
    return true;
}

bool Stanza::changeAttributeList(const char* key, AttributeList& in) {
    MutexLock lock(lock_);
    if (!attributes_.findAttribute(key)) return false;
    removeAttributeList(key);
    addAttributeList(key, in);
    return true;
}

// ---- writing ----

char Stanza::GetBSEscKey(char c) {
    return translate(c, bsEscValues, bsEscKeys);
}

char Stanza::GetBSEscValue(char key) {
    return translate(key, bsEscKeys, bsEscValues);
}

void Stanza::appendBSEscString(CText& out, const char* text) {
    for (; *text != '\0'; ++text) {
        const char key = GetBSEscKey(*text);
        if (key != '\0') out += '\\';
        out += key != '\0' ? key : *text;
    }
}

int Stanza::writeBSEscString(std::FILE* f, const char* text) {
    MutexLock lock(lock_);
    if (f == nullptr || text == nullptr) return 0;
    const MemoryWatch memory;
    CText escaped;
    appendBSEscString(escaped, text);
    return !memory.ranOut() && writeText(f, escaped) ? static_cast<int>(escaped.Length()) : -1;
}

bool Stanza::appendStanza(CText& out) {
    MutexLock lock(lock_);
    const std::size_t count = attributes_.length();
    const std::unique_ptr<const Attribute*[]> sorted(new (std::nothrow) const Attribute*[count]);
    if (sorted == nullptr) return false;
    const Attribute** end = sorted.get();
    for (ListIterators<Attribute> i(attributes_.attributes()); !i.isDone(); i.next())
        *end++ = &i.currentItem();
    std::stable_sort(sorted.get(), end,
                     [](const Attribute* left, const Attribute* right) { return *left < *right; });

    const MemoryWatch memory;
    out += '[';
    appendBSEscString(out, name_.GetTextEx());
    out += "]\n";
    for (const Attribute** i = sorted.get(); i != end; ++i) {
        appendBSEscString(out, (*i)->key().GetTextEx());
        out += '=';
        appendBSEscString(out, (*i)->value().GetTextEx());
        out += '\n';
    }
    out += '\n';
    return !memory.ranOut();
}

bool Stanza::saveStanza(std::FILE* f) {
    CText text;
    return appendStanza(text) && writeText(f, text);
}
