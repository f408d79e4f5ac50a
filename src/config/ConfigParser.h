// ConfigTokenizer and ConfigParser: the configuration file's syntax, from bytes in memory to stanzas.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "config/Stanza.h"

// Where and why a parse stopped. A fault in the file's text has a line and a column, both from 1 (a column is
// a byte); for a file that could not be read both are 0, and systemError is the errno of the call that
// failed, if one did.
struct ParseError {
    const char* reason = "";  // empty when nothing went wrong
    std::uint32_t line = 0;
    std::uint32_t column = 0;
    int systemError = 0;
};

// The tokens of the syntax. Which ones there are depends on the place: after "=" the caller asks for a value,
// everywhere else for the rest (key mode).
//
//     blanks           a blank is the space or the tab; skipped before a header, a key or a comment
//     ; comment        through the line feed: an end of line like the bare line feed
//     [name]           the name runs up to the first "]" or the end of the file, line feeds included
//     key=             up to a line feed, ";", "=" or "["; a line of blanks is an empty key
//     value            the rest of the line as it stands, its first 4095 characters
//
// In names, keys and values a backslash and "r", "n" or a backslash stand for CR, LF and one backslash;
// before any other character a backslash is itself. It protects nothing but "[" in a key. A NUL byte ends the
// text that it stands in; what follows it there is dropped.
class ConfigTokenizer {
  public:
    enum Token { kEndOfFile = 1, kKey = 2, kEndOfLine = 3, kStanzaHeader = 4, kValue = 5, kEquals = 6 };

    // The content stays the caller's and outlives the tokenizer.
    ConfigTokenizer(const char* content, std::uint32_t size) : content_(content), size_(size) {}

    // A key that the file ends in, without "=", is dropped: kEndOfFile.
    Token getToken(bool valueMode);

    // Of a key, header or value token. Valid until the next getToken().
    const char* text() const { return text_.data(); }
    std::size_t length() const { return text_.size() - 1; }  // what a NUL byte cut off included

    // Where the last token begins, counted from 1.
    void locate(std::uint32_t& line, std::uint32_t& column) const;

  private:
    static constexpr int kEnd = -1;
    static constexpr std::size_t kMaxValueLength = 4095;

    int get() { return position_ < size_ ? static_cast<unsigned char>(content_[position_++]) : kEnd; }
    int peek() const { return position_ < size_ ? static_cast<unsigned char>(content_[position_]) : kEnd; }
    void skipLine();
    void readText(const char* ends, const char* unprotected, std::size_t maxLength);

    const char* content_;
    std::uint32_t size_;
    std::uint32_t position_ = 0;
    std::uint32_t tokenStart_ = 0;
    std::vector<char> text_{'\0'};
};

// Builds the stanzas of a file one after the other. Between two of them stands at least one empty or comment
// line, and none stands inside. A name of more than 254 characters becomes empty, a key of more is an error.
class ConfigParser {
  public:
    ConfigParser(const char* content, std::uint32_t size) : tokens_(content, size) {}

    // The next stanza of the file; null at its end and after an error.
    std::unique_ptr<Stanza> nextStanza();

    const ParseError& error() const { return error_; }

  private:
    static constexpr std::uint32_t kMaxNameLength = 254;

    bool readHeaderEnd();
    bool readAttributes(Stanza& stanza);
    bool fail(const char* reason);

    ConfigTokenizer tokens_;
    ParseError error_;
};
