// ConfigTokenizer and ConfigParser: the configuration file's syntax, from bytes in memory to stanzas.
#pragma once

#include <cstdint>
#include <memory>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/Common_Classes/UData.h"
#include "config/ParseError.h"
#include "config/Stanza.h"

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
//
// Every byte of the file passes here at each request, and hardly any is needed: a token is found first, and
// decoded only when somebody asks for its text.
class ConfigTokenizer {
  public:
    enum Token { kEndOfFile = 1, kKey = 2, kEndOfLine = 3, kStanzaHeader = 4, kValue = 5, kEquals = 6 };

    // The content stays the caller's and outlives the tokenizer.
    ConfigTokenizer(const char* content, std::uint32_t size)
        : content_(content), end_(content + size), next_(content), token_(content) {}

    // A key that the file ends in, without "=", is dropped: kEndOfFile.
    Token getToken(bool valueMode);

    // Passes over attribute lines that the grammar takes whatever they say, as nearly all are: a key of 1 to
    // maxKeyLength bytes without a blank in front and without a special character, then "=" and a value.
    void skipPlainLines(std::size_t maxKeyLength);

    // Of a key, header or value token: its bytes in the file / the text that they stand for, which is never
    // longer. The text is valid until the next call; it is empty when there is no memory for it.
    std::size_t length() const { return static_cast<std::size_t>(textEnd_ - textBegin_); }
    const char* text();
    bool isCut() const;       // after text(): it lacks some of them, for being too long or for a NUL
    bool isVerbatim() const;  // of a header or key: nothing to decode, the bytes are the text

    // Where the bytes stand in the content.
    std::uint32_t offset() const { return static_cast<std::uint32_t>(textBegin_ - content_); }
    // Where the last token begins, counted from 1.
    void locate(std::uint32_t& line, std::uint32_t& column) const;

  private:
    void takeText(const char* end);
    void pass(char c);
    const char* findKeyEnd() const;

    const char* const content_;
    const char* const end_;
    const char* next_;   // the first character that belongs to no token yet
    const char* token_;  // where the last token begins
    const char* textBegin_ = nullptr;
    const char* textEnd_ = nullptr;
    std::size_t maxLength_ = 0;
    const char* decodedEnd_ = nullptr;  // of the bytes that text() took
    CData text_;
};

// Builds the stanzas of a file one after the other. Between two of them stands at least one empty or comment
// line, and none stands inside. A name of more than 254 characters becomes empty, a key of more is an error;
// so is a lack of memory: a stanza is handed out whole or not at all.
class ConfigParser {
  public:
    ConfigParser(const char* content, std::uint32_t size) : tokens_(content, size) {}

    // The next stanza of the file; null at its end and after an error.
    std::unique_ptr<Stanza> nextStanza();

    // The next stanza of that name; the others on the way are checked, not built.
    std::unique_ptr<Stanza> findStanza(const CText& name);

    // ---- the same step by step, for a caller who wants to know where things stand ----
    // To the next stanza, over what is left of the one before; false at the end of the file, and for good
    // after an error.
    bool nextHeader();
    bool nextAttribute();  // to its next attribute; false outside of a stanza, so also after an error

    // Of the header taken last, while no attribute of it was; of the attribute taken last. The texts are valid
    // until the next step, and so is that of value() until its next call.
    const char* name();
    const char* key() const { return key_.GetTextEx(); }
    const char* value() { return tokens_.text(); }
    bool isCut() const { return tokens_.isCut(); }  // after name() or value()

    // A name's or a value's bytes in the file, and where a key begins; offsets from the first byte.
    std::uint32_t offset() const { return tokens_.offset(); }
    std::size_t length() const { return tokens_.length(); }
    std::uint32_t keyOffset() const { return keyOffset_; }

    const ParseError& error() const { return error_; }

  private:
    static constexpr std::uint32_t kMaxNameLength = 254;

    bool mayBe(const CText& wanted) const;
    std::unique_ptr<Stanza> readStanza();
    bool readBody(Stanza* stanza);
    bool endHeader();
    bool takeAttribute(bool wanted);
    bool fail(const char* reason);
    bool failWithoutMemory();

    const MemoryWatch memory_;
    ConfigTokenizer tokens_;
    bool inStanza_ = false;  // its end was not reached yet
    bool inHeader_ = false;  // nor that of its first line
    CText key_;
    std::uint32_t keyOffset_ = 0;
    ParseError error_;
};
