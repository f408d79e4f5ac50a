#include "Server/Common_Classes/UText.h"

#include <strings.h>
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::uint32_t kMaxFormatted = 16384;
constexpr std::size_t kBriefFormatted = 256;

// The length of s, 0 for null; UINT32_MAX stands for every length that leaves no number for the terminator.
std::uint32_t lengthOf(const char* s) {
    return s == nullptr ? 0 : static_cast<std::uint32_t>(strnlen(s, UINT32_MAX));
}

// The decimal form of a number.
struct Decimal {
    explicit Decimal(long number) { std::snprintf(text, sizeof text, "%ld", number); }
    explicit Decimal(unsigned long number) { std::snprintf(text, sizeof text, "%lu", number); }
    char text[24];
};

bool isOneOf(unsigned char c, const char* set) {
    return c != 0 && std::strchr(set, c) != nullptr;
}

// Maps the 26 letters from asciiFirst and the 32 bytes from latinFirst by the table; others stay.
void mapCase(unsigned char* text, std::uint32_t length, unsigned char asciiFirst, unsigned char latinFirst,
             const std::array<std::int32_t, 256>& table) {
    for (unsigned char* c = text; c != text + length; ++c) {
        const bool ascii = *c >= asciiFirst && *c - asciiFirst < 26;
        const bool latin = *c >= latinFirst && *c - latinFirst < 32;
        if (ascii || latin) *c = static_cast<unsigned char>(table[*c]);
    }
}

// Follows the nesting of ' and " for RemoveEscapes.
class QuoteDepth {
  public:
    bool inQuotes() const { return depth_ != 0; }

    void see(unsigned char c) {
        if (c != '\'' && c != '"') return;
        closing_ ^= last_ == c;
        last_ = c;
        depth_ += closing_ ? -1 : 1;
        if (closing_ && depth_ == 0) last_ = 0;
    }

  private:
    std::int64_t depth_ = 0;
    unsigned char last_ = 0;
    bool closing_ = false;
};

}  // namespace

// ---- construction and assignment ----

CText::CText(std::uint32_t capacity) {
    if (capacity != UINT32_MAX) CText::SetBufferSize(capacity + 1);
}

CText::CText(const char* s) {
    *this = s;
}

CText::CText(const char* s, std::uint32_t n) {
    if (s != nullptr) CText::SetEqualTo(s, static_cast<std::uint32_t>(strnlen(s, n)), 0);
}

CText::CText(char c) {
    *this = c;
}

CText::CText(unsigned char c) {
    *this = static_cast<char>(c);
}

CText::CText(const CText& other) : CText() {
    *this = other;
}

CText& CText::operator=(const CText& other) {
    SetEqualTo(other);
    if (dataSize_ == 0) {
        Clear();
    } else {
        buffer_[dataSize_ - 1] = 0;
    }
    return *this;
}

CText& CText::operator=(const char* s) {
    SetEqualTo(s, lengthOf(s), 0);
    return *this;
}

CText& CText::operator=(char c) {
    SetEqualTo(&c, c == '\0' ? 0 : 1, 0);
    return *this;
}

CText& CText::operator=(long number) {
    return *this = Decimal(number).text;
}

CText& CText::operator=(unsigned long number) {
    return *this = Decimal(number).text;
}

std::uint32_t CText::SetEqualTo(const void* src, std::uint32_t len, std::uint32_t bufSize) {
    if (len == 0 || len == UINT32_MAX) {
        Clear();
        return dataSize_;
    }
    std::uint32_t stored = CData::SetEqualTo(src, len, std::max(len + 1, bufSize));
    if (stored != 0) {
        stored = std::min(stored, bufferSize_ - 1);  // the source may be the own buffer, filled to the brim
        buffer_[stored] = 0;
        dataSize_ = stored + 1;
    }
    return dataSize_;
}

// ---- size ----

std::uint32_t CText::SetUsableDataSize(std::uint32_t n) {
    if (n >= bufferSize_ && (n == UINT32_MAX || !SetBufferSize(n + 1))) return dataSize_;
    buffer_[n] = 0;
    return SetDataSize(n + 1);
}

std::uint32_t CText::GetUsableDataSize() const {
    return Length();
}

bool CText::SetBufferSize(std::uint32_t n) {
    const std::uint32_t before = dataSize_;
    if (!CData::SetBufferSize(n)) return false;
    if (dataSize_ != 0 && dataSize_ < before) buffer_[dataSize_ - 1] = 0;
    return true;
}

// ---- appending ----

CText& CText::operator+=(const CText& other) {
    if (other.IsEmpty()) return *this;
    if (IsEmpty()) return *this = other;
    Replace(Length(), 1, other);
    return *this;
}

CText& CText::operator+=(const char* s) {
    const std::uint32_t length = lengthOf(s);
    if (length == 0) return *this;
    if (IsEmpty()) {
        SetEqualTo(s, length, 0);
    } else if (length != UINT32_MAX) {
        Replace(Length(), 1, s, length + 1);
    }
    return *this;
}

CText& CText::operator+=(char c) {
    if (c == '\0') return *this;
    if (IsEmpty()) return *this = c;
    Replace(Length(), 0, static_cast<unsigned char>(c));
    return *this;
}

CText& CText::operator+=(long number) {
    return *this += Decimal(number).text;
}

CText& CText::operator+=(unsigned long number) {
    return *this += Decimal(number).text;
}

void CText::Format(const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    VArgFormat(fmt, &args);
    va_end(args);
}

void CText::AppendFormat(const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    VArgAppFormat(fmt, &args);
    va_end(args);
}

CText& CText::VArgFormat(const char* fmt, std::va_list* args) {
    Clear();
    return VArgAppFormat(fmt, args);
}

CText& CText::VArgAppFormat(const char* fmt, std::va_list* args) {
    if (fmt == nullptr || *fmt == '\0') return *this;
    if (args == nullptr) return *this = fmt;

    // Most results are short; a long one is made again where there is room for it. An argument may be this very text, so
    // the result is made elsewhere.
    char brief[kBriefFormatted];
    std::va_list copy;
    va_copy(copy, *args);
    const int length = std::vsnprintf(brief, sizeof brief, fmt, copy);
    va_end(copy);
    if (length < 1 || static_cast<std::uint32_t>(length) > kMaxFormatted) return *this;
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    if (size <= sizeof brief) return *this += brief;

    CText whole;
    if (!whole.SetBufferSize(static_cast<std::uint32_t>(size))) return *this;
    va_copy(copy, *args);
    std::vsnprintf(reinterpret_cast<char*>(whole.buffer_), size, fmt, copy);
    va_end(copy);
    whole.SetUsableDataSize(static_cast<std::uint32_t>(length));
    return *this += whole.GetTextEx();
}

// ---- comparison ----

int CText::Compare(const char* s) const {
    return strcasecmp(GetTextEx(), s == nullptr ? "" : s);
}

int CText::Compare(const char* s, std::uint32_t n) const {
    if (s == nullptr) return buffer_ == nullptr ? 0 : -1;
    if (IsEmpty()) return n == 0 ? 0 : -1;
    return n == 0 ? 1 : strncasecmp(GetText(), s, n);
}

bool CText::Equals(const CData& other) const {
    if (IsEmpty()) return other[0] == 0;
    return dataSize_ == other.GetDataSize() &&
           strncasecmp(GetText(), reinterpret_cast<const char*>(other.GetBuffer()), dataSize_) == 0;
}

bool CText::Equals(const char* s, std::uint32_t n) const {
    return Compare(s, n) == 0;
}

bool CText::Equals(const CData& other, bool caseSensitive) const {
    return caseSensitive ? CData::Equals(other) : Equals(other);
}

bool CText::Equals(const char* s, std::uint32_t n, bool caseSensitive) const {
    if (!caseSensitive) return Equals(s, n);
    if (s == nullptr || n == 0) return dataSize_ == 0;
    return n != UINT32_MAX && CData::Equals(s, n + 1);
}

bool CText::FirstNEquals(const char* s, std::uint32_t n, bool caseSensitive) const {
    if (s == nullptr) n = 0;
    if (IsEmpty() || n == 0) return IsEmpty() && n == 0;
    n = std::min(n, Length());
    if (caseSensitive) return std::strncmp(GetText(), s, n) == 0;
    return std::equal(buffer_, buffer_ + n, reinterpret_cast<const unsigned char*>(s),
                      [](unsigned char a, unsigned char b) { return k2upper[a] == k2upper[b]; });
}

bool CText::CompareLeft(const CText& prefix) const {
    return strncasecmp(GetTextEx(), prefix.GetTextEx(), prefix.Length()) == 0;
}

// ---- extraction ----

void CText::Left(CText& dest, std::uint32_t n) const {
    Mid(dest, 0, n);
}

void CText::Right(CText& dest, std::uint32_t n) const {
    n = std::min(n, Length());
    Mid(dest, Length() - n, n);
}

void CText::Mid(CText& dest, std::uint32_t start, std::uint32_t count) const {
    if (count == 0 || start >= Length()) {
        dest.Clear();
    } else {
        Copy(dest, start, std::min(count, Length() - start));
    }
}

std::uint32_t CText::Copy(unsigned char* dest, std::uint32_t destSize) const {
    return dest == nullptr || destSize == 0 ? 0 : Copy(dest, destSize, 0, dataSize_);
}

std::uint32_t CText::Copy(unsigned char* dest, std::uint32_t destLen, std::uint32_t start,
                          std::uint32_t count) const {
    assert(dest != 0 && destLen != 0);
    const std::uint32_t n = CData::Copy(dest, destLen, start, count);
    if (n == 0 || dest[n - 1] != 0) dest[std::min(n, destLen - 1)] = 0;
    return n == 0 ? 0 : n - 1;
}

std::uint32_t CText::Copy2PStr(unsigned char* dest, std::uint32_t destSize) const {
    const std::uint32_t n = Copy2PStr(dest, destSize, 0, dataSize_);
    if (n != 0) --dest[0];  // the terminator is no character
    return n;
}

std::uint32_t CText::Copy2PStr(unsigned char* dest, std::uint32_t destSize, std::uint32_t start,
                               std::uint32_t count) const {
    assert(dest != 0);
    const std::uint32_t n = CData::Copy(dest + 1, destSize, start, count);
    dest[0] = static_cast<unsigned char>(n);
    return n;
}

// ---- search and replace ----

std::uint32_t CText::Pos(const char* s, std::uint32_t start, bool forward) const {
    const std::uint32_t length = Length();
    const std::uint32_t m = lengthOf(s);
    if (m == 0 || m > length) return kNotFound;

    if (forward) {
        if (start >= length) return kNotFound;
        const void* match = memmem(buffer_ + start, length - start, s, m);
        return match == nullptr
                   ? kNotFound
                   : static_cast<std::uint32_t>(static_cast<const unsigned char*>(match) - buffer_);
    }

    if (static_cast<std::int32_t>(start) < 0) return kNotFound;
    for (std::uint32_t end = std::min(start, length - 1) + 1; end >= m; --end) {
        if (std::memcmp(buffer_ + end - m, s, m) == 0) return end - m;
    }
    return kNotFound;
}

void CText::ReplaceText(std::uint32_t pos, std::uint32_t count, const CText& with) {
    if (IsEmpty()) {
        *this = with;
        return;
    }
    pos = std::min(pos, Length());
    count = std::min(count, Length() - pos);
    Replace(pos, count, with.buffer_, with.Length());
}

void CText::ReplaceAll(const CText& from, const CText& to) {
    if (from.IsEmpty() || IsEmpty()) return;
    replaceMatches(GetText(), from.GetText(), from.Length(), to);
}

void CText::ReplaceAll(const CText& from, const CText& to, bool caseSensitive) {
    if (caseSensitive) {
        ReplaceAll(from, to);
        return;
    }
    CText upperText(*this);
    CText upperFrom(from);
    if (upperFrom.IsEmpty() || upperText.IsEmpty()) return;
    upperText.UpperCase();
    upperFrom.UpperCase();
    replaceMatches(upperText.GetText(), upperFrom.GetText(), upperFrom.Length(), to);
}

// Puts `to` in the place of every match of the needle. The haystack, searched in place of the text, is the
// text itself or a copy of equal length. The result is built aside, in one piece of its final size.
void CText::replaceMatches(const char* haystack, const char* needle, std::uint32_t needleLength,
                           const CText& to) {
    std::uint64_t matches = 0;
    for (const char* p = haystack; (p = std::strstr(p, needle)) != nullptr; p += needleLength)
        ++matches;
    if (matches == 0) return;

    const std::uint64_t length = Length() - matches * needleLength + matches * to.Length();
    CText result;
    if (length >= UINT32_MAX || !result.SetBufferSize(static_cast<std::uint32_t>(length) + 1)) return;

    const unsigned char* from = buffer_;
    unsigned char* out = result.buffer_;
    for (const char* p = haystack; (p = std::strstr(p, needle)) != nullptr; p += needleLength) {
        const unsigned char* match = buffer_ + (p - haystack);
        out = std::copy(from, match, out);
        out = std::copy(to.buffer_, to.buffer_ + to.Length(), out);
        from = match + needleLength;
    }
    std::copy(from, static_cast<const unsigned char*>(buffer_ + Length()), out);
    result.SetUsableDataSize(static_cast<std::uint32_t>(length));
    *this = result;
}

void CText::ReplaceOccurrence(const CText& from, const CText& to, std::uint32_t n, bool caseSensitive) {
    if (n == 0 || from.IsEmpty() || IsEmpty()) return;
    const char* match = GetText();
    for (;;) {
        match = caseSensitive ? std::strstr(match, from.GetText()) : strcasestr(match, from.GetText());
        if (match == nullptr) return;
        if (--n == 0) break;
        match += from.Length();
    }
    Replace(static_cast<std::uint32_t>(match - GetText()), from.Length(), to.buffer_, to.Length());
}

void CText::Filter(const CText& set, bool remove) {
    if (IsEmpty() || set.IsEmpty()) return;
    std::array<bool, 256> keep;
    keep.fill(remove);
    for (std::uint32_t i = 0; i < set.Length(); ++i)
        keep[set[i]] = !remove;
    const unsigned char* end =
        std::remove_if(buffer_, buffer_ + Length(), [&](unsigned char c) { return !keep[c]; });
    SetUsableDataSize(static_cast<std::uint32_t>(end - buffer_));
}

// ---- trimming, padding, folding, quoting ----

// Removes the run of characters of the set at the end or at the start.
void CText::trim(const char* set, bool trailing) {
    if (IsEmpty()) return;
    if (trailing) {
        std::uint32_t length = Length();
        while (length > 0 && isOneOf(buffer_[length - 1], set))
            --length;
        SetUsableDataSize(length);
    } else {
        Replace(0, static_cast<std::uint32_t>(std::strspn(GetText(), set)), nullptr, 0);
    }
}

void CText::Trim() {
    trim(" \t\n", true);
}

void CText::TrimSpaces(bool trailing) {
    trim(" ", trailing);
}

void CText::TrimWhiteSpaces(bool trailing) {
    trim(" \n\r\t", trailing);
}

void CText::Trim(char c, bool leading) {
    const char set[] = {c, '\0'};
    trim(set, !leading);
}

void CText::Pad(char c, std::uint32_t width, bool atEnd) {
    const std::uint32_t length = Length();
    if (length >= width || SetUsableDataSize(width) <= width) return;
    const std::uint32_t gap = width - length;
    if (!atEnd) std::memmove(buffer_ + gap, buffer_, length);
    std::memset(atEnd ? buffer_ + length : buffer_, c, gap);
}

void CText::Fold(std::uint32_t width) {
    const std::uint32_t length = Length();
    if (length < width) return;
    std::uint64_t column = 0;
    std::uint32_t lastBlank = 0;  // the latest place for a break; the first character is none
    for (std::uint32_t i = 0; i < length; ++i) {
        const unsigned char c = buffer_[i];
        const bool blank = c == ' ' || c == '\t';
        const bool lineEnd = c == '\r' || c == '\n';
        if (lineEnd) {
            column = 0;
        } else {
            column += c == '\t' ? 8 : 1;
            if (column >= width && i > 0) {
                if (blank) {
                    buffer_[i] = '\r';
                    column = 0;
                } else if (lastBlank > 0) {
                    buffer_[lastBlank] = '\r';
                    column = i - lastBlank;
                }
            }
        }
        if (blank || lineEnd) lastBlank = i;
    }
}

bool CText::IsQuoted() const {
    if (Length() < 2) return false;
    const unsigned char first = buffer_[0];
    return (first == '\'' || first == '"') && buffer_[Length() - 1] == first;
}

void CText::StripQuotes() {
    if (IsQuoted()) stripEnds();
}

bool CText::IsInBrackets() {
    TrimSpaces(false);
    if (Length() < 2) return false;
    const unsigned char first = buffer_[0];
    const unsigned char last = buffer_[Length() - 1];
    return (first == '(' && last == ')') || (first == '[' && last == ']');
}

void CText::StripBrackets() {
    if (IsInBrackets()) stripEnds();
}

// Removes the first and the last character.
void CText::stripEnds() {
    SetUsableDataSize(Length() - 1);
    Replace(0, 1, nullptr, 0);
}

void CText::RemoveEscapes(std::uint32_t start, long count) {
    const std::uint32_t length = Length();
    if (start >= length) return;
    const bool toEnd = count < 0 || static_cast<unsigned long>(count) >= length - start;
    const std::uint32_t end = toEnd ? length : start + static_cast<std::uint32_t>(count);

    QuoteDepth quotes;
    bool escaped = false;
    std::uint32_t out = start;
    for (std::uint32_t i = start; i < end && buffer_[i] != 0; ++i) {
        const unsigned char c = buffer_[i];
        if (!quotes.inQuotes() && !escaped && c == '\\') {
            escaped = true;
            continue;
        }
        if (!escaped) quotes.see(c);
        escaped = false;
        buffer_[out++] = c;
    }
    SetUsableDataSize(out);
}

void CText::Reverse() {
    std::reverse(buffer_, buffer_ + Length());
}

void CText::UpperCase() {
    mapCase(buffer_, Length(), 'a', 0xE0, k2upper);
}

void CText::LowerCase() {
    mapCase(buffer_, Length(), 'A', 0xC0, k2lower);
}

// ---- conversion ----

std::uint32_t CText::GetTextAsULong() const {
    // Numbers beyond 32 bits saturate and negative ones wrap, whatever the width of long.
    constexpr long long kMax = UINT32_MAX;
    const long long number = std::strtoll(GetTextEx(), nullptr, 10);
    return number > kMax || number < -kMax ? UINT32_MAX : static_cast<std::uint32_t>(number);
}

std::uint32_t CText::GetTextAsBitMask() const {
    std::uint32_t mask = 0;
    for (std::uint32_t i = 0; i < Length(); ++i) {
        const unsigned char c = buffer_[i];
        if (c != '0' && c != '1') return 0;
        mask = mask << 1 | (c == '1');
    }
    return mask;
}

std::uint32_t CText::CastDataToLong() const {
    std::uint32_t code = 0;
    for (std::uint32_t i = 0; i < 4; ++i)
        code = code << 8 | (*this)[i];
    return code;
}

CText& ScanCookie(const CText& cookies, const CText& name, CText& value, char separator) {
    return ScanCookie(cookies.GetTextEx(), cookies.Length(), name, value, separator);
}

CText& ScanCookie(const char* pairs, std::uint32_t length, const CText& name, CText& value, char separator) {
    value.Clear();
    if (pairs == nullptr || name.IsEmpty()) return value;
    const char* const end = pairs + strnlen(pairs, length);
    const auto rest = [end](const char* p) { return static_cast<std::size_t>(end - p); };
    const auto skipBlanks = [end](const char* p) {
        return std::find_if(p, end, [](char c) { return c != ' '; });
    };
    const auto endsValue = [separator](char c) { return c == '\r' || c == '\n' || c == separator; };

    for (const char* p = pairs; p != nullptr;) {
        p = static_cast<const char*>(memmem(p, rest(p), name.GetText(), name.Length()));
        if (p == nullptr) break;
        p += name.Length();
        const char* equals = skipBlanks(p);
        if (equals != end && *equals == '=') {
            const char* first = equals == p ? equals + 1 : skipBlanks(equals + 1);
            const char* last = std::find_if(first, end, endsValue);
            value.SetEqualTo(first, static_cast<std::uint32_t>(last - first), 0);
            break;
        }
        p = static_cast<const char*>(std::memchr(equals, separator, rest(equals)));
    }
    return value;
}
