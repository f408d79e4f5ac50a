// ConfigTokenizer and ConfigParser: reading the configuration file's syntax.
#include "config/ConfigParser.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

constexpr std::size_t kMaxValueLength = 4095;

// What ends a key, and the backslash, which may protect what follows it.
constexpr std::array<bool, 256> kKeyStops = [] {
    std::array<bool, 256> stops{};
    for (const char c : {'\n', ';', '=', '[', '\\'})
        stops[static_cast<unsigned char>(c)] = true;
    return stops;
}();

// The first such character, or end. Most are a few bytes away, too near to call memchr(): a word in which c
// leaves a zero byte is told from others by arithmetic.
const char* find(const char* from, const char* end, char c) {
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    const std::uint64_t sought = kOnes * static_cast<unsigned char>(c);
    for (; end - from >= 8; from += 8) {
        std::uint64_t word;
        std::memcpy(&word, from, sizeof word);
        word ^= sought;
        if (((word - kOnes) & ~word & kOnes << 7) != 0) break;
    }
    while (from != end && *from != c)
        ++from;
    return from;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

// ---- tokens ----

ConfigTokenizer::Token ConfigTokenizer::getToken(bool valueMode) {
    token_ = textBegin_ = textEnd_ = next_;
    if (valueMode) {
        takeText(find(next_, end_, '\n'));
        maxLength_ = kMaxValueLength;
        pass('\n');
        return kValue;
    }

    while (next_ != end_ && isBlank(*next_))
        ++next_;
    const bool indented = next_ != token_;
    token_ = next_;
    if (next_ == end_) return kEndOfFile;
    switch (*next_) {
        case ';':
            next_ = find(next_, end_, '\n');
            pass('\n');
            return kEndOfLine;
        case '[':
            pass('[');
            takeText(find(next_, end_, ']'));
            pass(']');
            return kStanzaHeader;
        case '\n':
        case '=':
            // After blanks it ends an empty key and is the next token.
            if (indented) return kKey;
            return *next_++ == '=' ? kEquals : kEndOfLine;
        default:
            takeText(findKeyEnd());
            return next_ != end_ ? kKey : kEndOfFile;
    }
}

void ConfigTokenizer::skipPlainLines(std::size_t maxKeyLength) {
    for (const char* line = next_; line != end_ && !isBlank(*line); line = next_) {
        const char* p = line;
        while (p != end_ && !kKeyStops[static_cast<unsigned char>(*p)])
            ++p;
        if (p == end_ || *p != '=' || p == line || static_cast<std::size_t>(p - line) > maxKeyLength) return;
        next_ = p;
        next_ = find(next_, end_, '\n');
        pass('\n');
    }
}

// A token ends in front of a backslash's partner only where that partner cannot be protected: any other
// backslash has its partner inside.
const char* ConfigTokenizer::text() {
    const auto needed = static_cast<std::uint32_t>(length() + 1);
    if (text_.GetBufferSize() < needed && !text_.SetBufferSize(needed)) return "";
    auto* const text = reinterpret_cast<char*>(text_.GetBuffer());
    std::size_t size = 0;
    const char* p = textBegin_;
    for (; p != textEnd_ && size < maxLength_; ++p) {
        const bool isEscape = *p == '\\' && p + 1 != textEnd_;
        const char decoded = isEscape ? Stanza::GetBSEscValue(p[1]) : '\0';
        text[size++] = decoded != '\0' ? decoded : *p;
        if (isEscape) {
            ++p;
            if (decoded == '\0') text[size++] = *p;
        }
    }
    text[size] = '\0';
    decodedEnd_ = p;
    return text;
}

bool ConfigTokenizer::isCut() const {
    return decodedEnd_ != textEnd_ || find(textBegin_, textEnd_, '\0') != textEnd_;
}

bool ConfigTokenizer::isVerbatim() const {
    return find(textBegin_, textEnd_, '\\') == textEnd_ && find(textBegin_, textEnd_, '\0') == textEnd_;
}

void ConfigTokenizer::locate(std::uint32_t& line, std::uint32_t& column) const {
    line = 1;
    column = 1;
    for (const char* p = content_; p != token_; ++p) {
        ++column;
        if (*p == '\n') {
            ++line;
            column = 1;
        }
    }
}

// The characters from here to end are the token's.
void ConfigTokenizer::takeText(const char* end) {
    textBegin_ = next_;
    textEnd_ = next_ = end;
    maxLength_ = length();
}

void ConfigTokenizer::pass(char c) {
    if (next_ != end_ && *next_ == c) ++next_;
}

// A backslash protects another one and "[".
const char* ConfigTokenizer::findKeyEnd() const {
    for (const char* p = next_; p != end_; ++p) {
        if (!kKeyStops[static_cast<unsigned char>(*p)]) continue;
        if (*p != '\\') return p;
        if (p + 1 != end_ && (p[1] == '\\' || p[1] == '[')) ++p;
    }
    return end_;
}

// ---- stanzas ----

std::unique_ptr<Stanza> ConfigParser::nextStanza() {
    return nextHeader() ? readStanza() : nullptr;
}

std::unique_ptr<Stanza> ConfigParser::findStanza(const CText& wanted) {
    while (nextHeader()) {
        if (mayBe(wanted) && wanted == name()) return readStanza();
        if (!readBody(nullptr)) break;
    }
    return nullptr;
}

// Whether the header just taken can have that name: one that stands for itself has as many bytes.
bool ConfigParser::mayBe(const CText& wanted) const {
    return tokens_.length() == wanted.Length() || tokens_.length() > kMaxNameLength || !tokens_.isVerbatim();
}

bool ConfigParser::nextHeader() {
    while (inStanza_)
        takeAttribute(false);
    if (*error_.reason != '\0') return false;
    ConfigTokenizer::Token token = tokens_.getToken(false);
    while (token == ConfigTokenizer::kEndOfLine)
        token = tokens_.getToken(false);
    inStanza_ = inHeader_ = token == ConfigTokenizer::kStanzaHeader;
    if (inHeader_) return true;
    if (token == ConfigTokenizer::kEndOfFile) return false;
    return fail("outside of a section: only comments, empty lines and [section] headers are allowed here");
}

const char* ConfigParser::name() {
    const char* text = tokens_.text();
    return std::strlen(text) > kMaxNameLength ? "" : text;
}

std::unique_ptr<Stanza> ConfigParser::readStanza() {
    std::unique_ptr<Stanza> stanza(new (std::nothrow) Stanza(name()));
    const bool isWhole = stanza != nullptr ? readBody(stanza.get()) : failWithoutMemory();
    if (!isWhole) stanza.reset();
    return stanza;
}

// What follows the name. Without a stanza to fill it is only checked.
bool ConfigParser::readBody(Stanza* stanza) {
    while (takeAttribute(stanza != nullptr)) {
        if (stanza != nullptr) stanza->addValue(key(), value());
    }
    if (*error_.reason != '\0') return false;
    return !memory_.ranOut() || failWithoutMemory();
}

bool ConfigParser::nextAttribute() {
    return inStanza_ && takeAttribute(true);
}

bool ConfigParser::endHeader() {
    inHeader_ = false;
    ConfigTokenizer::Token token = tokens_.getToken(false);
    // Blanks alone are an empty key to the tokenizer.
    if (token == ConfigTokenizer::kKey && tokens_.length() == 0) token = tokens_.getToken(false);
    return token == ConfigTokenizer::kEndOfLine ||
           fail("after a section header only blanks and a comment may stand on its line");
}

// One that is not wanted is passed over, with all that can be passed over at once.
bool ConfigParser::takeAttribute(bool wanted) {
    if (inHeader_ && !endHeader()) return false;
    if (!wanted) tokens_.skipPlainLines(kMaxNameLength);
    switch (tokens_.getToken(false)) {
        case ConfigTokenizer::kEndOfLine:
        case ConfigTokenizer::kEndOfFile:
            inStanza_ = false;
            return false;
        case ConfigTokenizer::kKey:
            break;
        case ConfigTokenizer::kStanzaHeader:
            return fail("an empty line is missing before the section header");
        default:
            return fail("no key before the =");
    }
    if (tokens_.length() > kMaxNameLength && std::strlen(tokens_.text()) > kMaxNameLength)
        return fail("the key is longer than 254 characters");
    const bool isEmptyKey = tokens_.length() == 0;
    if (wanted) {
        key_ = tokens_.text();
        keyOffset_ = tokens_.offset();
    }
    if (tokens_.getToken(false) != ConfigTokenizer::kEquals)
        return fail(isEmptyKey ? "a line of blanks inside a section" : "no = after the key");
    tokens_.getToken(true);
    return true;
}

bool ConfigParser::fail(const char* reason) {
    inStanza_ = false;
    error_.reason = reason;
    tokens_.locate(error_.line, error_.column);
    return false;
}

bool ConfigParser::failWithoutMemory() {
    error_ = {"there is not enough memory for the file's content", 0, 0, ENOMEM};
    return false;
}
