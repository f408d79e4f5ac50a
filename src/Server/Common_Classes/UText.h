// CText: the system's text string, CTextLocal<N>: the same over an inline buffer, ScanCookie: one value out
// of a cookie or query string.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "Server/Common_Classes/UData.h"
#include "Server/Common_Classes/UType.h"

// A NUL-terminated run of single-byte characters over the storage of CData. The data size counts the
// terminator: a text of n > 0 characters has data size n + 1. A text of data size 0 or 1 is empty; one that
// never held a character has no buffer at all.
//
// Characters are bytes, positions and lengths count characters. Comparisons ignore case unless they say
// otherwise. Null character pointers count as empty texts. Nothing throws: an assignment from characters
// stores what fits, a copy of another text, an append or a replacement that does not fit changes nothing.
class CText : public CData {
  public:
    static constexpr std::uint32_t kNotFound = 0xFFFFFFFFu;

    constexpr CText() noexcept = default;
    explicit CText(std::uint32_t capacity);  // empty, with room for that many characters
    CText(const char* s);
    CText(const char* s, std::uint32_t n);  // at most the first n characters of s
    explicit CText(char c);
    explicit CText(unsigned char c);
    CText(const CText& other);
    ~CText() override = default;

    CText& operator=(const CText& other);
    CText& operator=(const char* s);
    CText& operator=(char c);
    CText& operator=(long number);
    CText& operator=(unsigned long number);

    // ---- size ----
    std::uint32_t Length() const { return dataSize_ == 0 ? 0 : dataSize_ - 1; }
    bool IsEmpty() const { return dataSize_ <= 1; }

    // Sets the length to n characters and terminates the text there, growing the buffer when needed. Returns
    // the resulting data size (terminator included).
    std::uint32_t SetUsableDataSize(std::uint32_t n) override;
    std::uint32_t GetUsableDataSize() const override;  // the length in characters
    bool SetBufferSize(std::uint32_t n) override;      // bytes; a real shrink keeps the text terminated

    // ---- characters ----
    // The buffer itself: null when the text never held a character. Valid until the next change.
    const char* GetText() const { return reinterpret_cast<const char*>(buffer_); }
    // Never null: a static "" when the text is empty.
    const char* GetTextEx() const { return IsEmpty() ? "" : GetText(); }

    // From a block: its bytes as they are, so it must end in a NUL to make a text.
    using CData::SetEqualTo;
    std::uint32_t SetEqualTo(const void* src, std::uint32_t len, std::uint32_t bufSize) override;

    // ---- appending ----
    // What does not fit changes nothing; of characters appended to an empty text, what fits is stored.
    CText& operator+=(const CText& other);
    CText& operator+=(const char* s);
    CText& operator+=(char c);
    CText& operator+=(long number);
    CText& operator+=(unsigned long number);

    // printf-style. A result of more than 16384 characters, or of none, appends nothing. A null argument list
    // makes the format itself the text (it replaces the content). The list is left for the caller's va_end.
    [[gnu::format(printf, 2, 3)]] void Format(const char* fmt, ...);
    [[gnu::format(printf, 2, 3)]] void AppendFormat(const char* fmt, ...);
    CText& VArgFormat(const char* fmt, std::va_list* args);
    CText& VArgAppFormat(const char* fmt, std::va_list* args);

    // ---- extraction ----
    void Left(CText& dest, std::uint32_t n) const;
    void Right(CText& dest, std::uint32_t n) const;
    void Mid(CText& dest, std::uint32_t start, std::uint32_t count) const;
    using CData::Copy;
    // Into a character array of destSize bytes, always terminated. The terminator counts as one of the bytes
    // copied; return the number of those less one. The ranged form REQUIRES dest != null and destSize != 0
    // (assertion).
    std::uint32_t Copy(unsigned char* dest, std::uint32_t destSize) const override;
    std::uint32_t Copy(unsigned char* dest, std::uint32_t destSize, std::uint32_t start,
                       std::uint32_t count) const override;
    // A length-prefixed string: the length byte, then the characters. REQUIRES dest != null (assertion) and
    // room for destSize + 1 bytes, destSize <= 256. Return the bytes copied.
    virtual std::uint32_t Copy2PStr(unsigned char* dest, std::uint32_t destSize) const;
    virtual std::uint32_t Copy2PStr(unsigned char* dest, std::uint32_t destSize, std::uint32_t start,
                                    std::uint32_t count) const;

    // ---- search and replace ----
    // Case-sensitive; kNotFound when there is no match. Backward matches end at or before start.
    std::uint32_t Pos(const char* s, std::uint32_t start, bool forward) const;
    virtual void ReplaceText(std::uint32_t pos, std::uint32_t count, const CText& with);
    // All matches; a result that does not fit changes nothing.
    virtual void ReplaceAll(const CText& from, const CText& to);
    virtual void ReplaceAll(const CText& from, const CText& to, bool caseSensitive);
    virtual void ReplaceOccurrence(const CText& from, const CText& to, std::uint32_t n,
                                   bool caseSensitive);  // n from 1
    void Filter(const CText& set, bool remove);          // keeps only, or removes, the characters of set

    // ---- comparison ----
    int Compare(const char* s) const;                   // as strcasecmp
    int Compare(const char* s, std::uint32_t n) const;  // over the first n characters
    bool operator==(const CText& other) const { return Equals(other); }
    bool operator!=(const CText& other) const { return Compare(other.GetTextEx()) != 0; }
    bool operator<(const CText& other) const { return Compare(other.GetTextEx()) < 0; }
    bool operator<=(const CText& other) const { return Compare(other.GetTextEx()) <= 0; }
    bool operator>(const CText& other) const { return Compare(other.GetTextEx()) > 0; }
    bool operator>=(const CText& other) const { return Compare(other.GetTextEx()) >= 0; }
    bool operator==(const char* s) const { return Compare(s) == 0; }
    bool operator!=(const char* s) const { return Compare(s) != 0; }

    bool Equals(const CData& other) const override;
    bool Equals(const char* s, std::uint32_t n) const override;  // the first n characters only
    virtual bool Equals(const CData& other, bool caseSensitive) const;
    virtual bool Equals(const char* s, std::uint32_t n,
                        bool caseSensitive) const;  // case-sensitive: the whole text
    // Compares over the shorter of n and this text's length; an s that ends before that differs.
    virtual bool FirstNEquals(const char* s, std::uint32_t n, bool caseSensitive) const;
    bool CompareLeft(const CText& prefix) const;

    // ---- trimming, padding, folding, quoting ----
    void Trim();                          // blanks, tabs and line feeds at the end
    void TrimSpaces(bool trailing);       // ' ' at the end or at the start
    void TrimWhiteSpaces(bool trailing);  // ' ', '\n', '\r', '\t'
    void Trim(char c, bool leading);      // the run of c at the start or at the end
    void Pad(char c, std::uint32_t width, bool atEnd);
    void Fold(std::uint32_t width);  // breaks long lines: a blank becomes '\r'
    bool IsQuoted() const;
    void StripQuotes();
    bool IsInBrackets();  // drops leading spaces first
    void StripBrackets();
    // Drops escaping backslashes outside quotes in count characters from start (to the end when count is
    // negative); what follows the region is dropped too.
    void RemoveEscapes(std::uint32_t start, long count);
    void Reverse();
    void UpperCase();
    void LowerCase();

    // ---- conversion ----
    std::uint32_t GetTextAsULong() const;    // leading decimal number, 0 when there is none
    std::uint32_t GetTextAsBitMask() const;  // '0' and '1', most significant first; 0 for anything else
    std::uint32_t CastDataToLong() const;    // first four bytes, big-endian; missing bytes are zero

    // The splices and hand-over of CData hold for texts as they are.
    using CData::Replace;

  private:
    void trim(const char* set, bool trailing);
    void stripEnds();
    void replaceMatches(const char* haystack, const char* needle, std::uint32_t needleLength,
                        const CText& to);
};

// A text in an inline buffer of N bytes, for at most N - 1 characters. It never allocates and never hands its
// buffer out.
template <std::uint32_t N>
class CTextLocal : public CText {
  public:
    CTextLocal() {
        inline_[0] = 0;
        SetBuffer(inline_, N, 0);
    }
    CTextLocal(const CTextLocal& other) : CTextLocal() { CText::operator=(other); }
    explicit CTextLocal(const CText& other) : CTextLocal() { CText::operator=(other); }
    explicit CTextLocal(char c) : CTextLocal() { CText::operator=(c); }
    explicit CTextLocal(const char* s) : CTextLocal() { CText::operator=(s); }
    explicit CTextLocal(long) = delete;  // would be taken for a character
    explicit CTextLocal(unsigned long) = delete;

    CTextLocal& operator=(const CTextLocal& other) { return assign(other); }
    CTextLocal& operator=(const CText& other) { return assign(other); }
    CTextLocal& operator=(char c) { return assign(c); }
    CTextLocal& operator=(const char* s) { return assign(s); }
    CTextLocal& operator=(const unsigned char* s) { return assign(reinterpret_cast<const char*>(s)); }
    CTextLocal& operator=(long) = delete;  // not the decimal form that CText makes, but a character
    CTextLocal& operator=(unsigned long) = delete;

    void ReleaseData() override { Clear(); }
    unsigned char* ReleaseBuffer(std::uint32_t*, std::uint32_t*) override { return nullptr; }

  private:
    template <class Source>
    CTextLocal& assign(const Source& source) {
        CText::operator=(source);
        return *this;
    }

    unsigned char inline_[N];
};

// Takes the value of name out of "name=value" pairs divided by separator; value is emptied first and stays
// empty when there is none. The name is matched case-sensitively and anywhere, also inside a longer name. The
// value ends at the separator, CR or LF. In "name = value" the blanks on both sides are skipped; without one
// before "=", those after it belong to the value. Returns value.
CText& ScanCookie(const CText& cookies, const CText& name, CText& value, char separator);
// The same over length characters in memory, or up to the first NUL among them. value lies elsewhere.
CText& ScanCookie(const char* pairs, std::uint32_t length, const CText& name, CText& value, char separator);
