// ConfigTokenizer and ConfigParser: reading the configuration file's syntax.
#include "config/ConfigParser.h"

#include <cstring>

namespace {

bool isBlank(int c) {
    return c == ' ' || c == '\t';
}

bool isOneOf(const char* set, int c) {
    return c > 0 && std::strchr(set, c) != nullptr;
}

}  // namespace

// ---- tokens ----

ConfigTokenizer::Token ConfigTokenizer::getToken(bool valueMode) {
    text_.assign(1, '\0');
    tokenStart_ = position_;
    if (valueMode) {
        readText("\n", "\n", kMaxValueLength);
        skipLine();
        return kValue;
    }

    const bool indented = isBlank(peek());
    while (isBlank(peek()))
        ++position_;
    tokenStart_ = position_;
    switch (peek()) {
        case kEnd:
            return kEndOfFile;
        case ';':
            skipLine();
            return kEndOfLine;
        case '[':
            ++position_;
            readText("]", "]", size_);
            get();
            return kStanzaHeader;
        case '\n':
        case '=':
            // After blanks it ends an empty key and is the next token.
            if (indented) return kKey;
            return get() == '=' ? kEquals : kEndOfLine;
        default:
            readText("\n;=[", "\n;=", size_);
            return peek() == kEnd ? kEndOfFile : kKey;
    }
}

void ConfigTokenizer::locate(std::uint32_t& line, std::uint32_t& column) const {
    line = 1;
    column = 1;
    for (std::uint32_t i = 0; i < tokenStart_; ++i) {
        ++column;
        if (content_[i] == '\n') {
            ++line;
            column = 1;
        }
    }
}

void ConfigTokenizer::skipLine() {
    for (int c = get(); c != '\n' && c != kEnd;)
        c = get();
}

// Collects characters, escapes decoded, until one of ends is next or maxLength is reached. An unprotected
// character keeps its meaning after a backslash.
void ConfigTokenizer::readText(const char* ends, const char* unprotected, std::size_t maxLength) {
    text_.clear();
    while (text_.size() < maxLength && peek() != kEnd && !isOneOf(ends, peek())) {
        const char c = static_cast<char>(get());
        const int next = peek();
        if (c != '\\' || next == kEnd || isOneOf(unprotected, next)) {
            text_.push_back(c);
            continue;
        }
        const char decoded = Stanza::GetBSEscValue(static_cast<char>(get()));
        if (decoded != '\0') {
            text_.push_back(decoded);
        } else {
            text_.push_back(c);
            text_.push_back(static_cast<char>(next));
        }
    }
    text_.push_back('\0');
}

// ---- stanzas ----

std::unique_ptr<Stanza> ConfigParser::nextStanza() {
    ConfigTokenizer::Token token = tokens_.getToken(false);
    while (token == ConfigTokenizer::kEndOfLine)
        token = tokens_.getToken(false);
    if (token == ConfigTokenizer::kEndOfFile) return nullptr;
    if (token != ConfigTokenizer::kStanzaHeader) {
        fail("outside of a section: only comments, empty lines and [section] headers are allowed here");
        return nullptr;
    }
    const bool tooLong = std::strlen(tokens_.text()) > kMaxNameLength;
    auto stanza = std::make_unique<Stanza>(tooLong ? "" : tokens_.text());
    return readHeaderEnd() && readAttributes(*stanza) ? std::move(stanza) : nullptr;
}

// Blanks alone are an empty key to the tokenizer.
bool ConfigParser::readHeaderEnd() {
    ConfigTokenizer::Token token = tokens_.getToken(false);
    if (token == ConfigTokenizer::kKey && tokens_.length() == 0) token = tokens_.getToken(false);
    if (token == ConfigTokenizer::kEndOfLine) return true;
    return fail("after a section header only blanks and a comment may stand on its line");
}

bool ConfigParser::readAttributes(Stanza& stanza) {
    for (;;) {
        switch (tokens_.getToken(false)) {
            case ConfigTokenizer::kEndOfLine:
            case ConfigTokenizer::kEndOfFile:
                return true;
            case ConfigTokenizer::kKey:
                break;
            case ConfigTokenizer::kStanzaHeader:
                return fail("an empty line is missing before the section header");
            default:
                return fail("no key before the =");
        }
        if (std::strlen(tokens_.text()) > kMaxNameLength)
            return fail("the key is longer than 254 characters");
        const CTextLocal<kMaxNameLength + 1> key(tokens_.text());
        if (tokens_.getToken(false) != ConfigTokenizer::kEquals)
            return fail(key.IsEmpty() ? "a line of blanks inside a section" : "no = after the key");
        tokens_.getToken(true);
        stanza.addValue(key.GetTextEx(), tokens_.text());
    }
}

bool ConfigParser::fail(const char* reason) {
    error_.reason = reason;
    tokens_.locate(error_.line, error_.column);
    return false;
}
