#include "common/Text.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr std::size_t kPrintableLimit = 300;

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::string format(const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    return text;
}

std::string printable(std::string_view text) {
    std::string result;
    for (const char c : text.substr(0, kPrintableLimit)) {
        if (isControl(c) || c == '"' || c == '\\') {
            result += format("\\x%02X", static_cast<unsigned char>(c));
        } else {
            result += c;
        }
    }
    if (text.size() > kPrintableLimit) result += "...";
    return result;
}

bool hasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), isControl);
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    std::size_t from = 0;
    for (std::size_t end; (end = text.find(separator, from)) != std::string_view::npos; from = end + 1)
        pieces.emplace_back(text.substr(from, end - from));
    pieces.emplace_back(text.substr(from));
    return pieces;
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
    int base = 10;
    if (startsWithIgnoringCase(text, "0x")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
    return text.size() >= start.size() && std::equal(start.begin(), start.end(), text.begin(),
                                                     [](char a, char b) { return lower(a) == lower(b); });
}
