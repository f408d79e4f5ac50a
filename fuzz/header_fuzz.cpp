// Response headers with any content: what is accepted, and that everything handed out lies inside the text.
//
// Input: the header.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "Fuzz.h"
#include "cgi/VeHttpResponse.h"

namespace {

using Text = std::string_view;

struct Releaser {
    void operator()(void* response) const { VeHttpReleaseResponse(response); }
};
using Response = std::unique_ptr<void, Releaser>;

constexpr Text kLineEnd = "\r\n";

// Takes count digits, or as many as there are; their number.
std::size_t takeDigits(Text& text) {
    std::size_t n = 0;
    while (n < text.size() && std::isdigit(static_cast<unsigned char>(text[n])) != 0)
        ++n;
    text.remove_prefix(n);
    return n;
}

bool take(Text& text, Text expected) {
    if (text.substr(0, expected.size()) != expected) return false;
    text.remove_prefix(expected.size());
    return true;
}

struct StatusLine {
    bool isValid = false;
    std::int32_t code = 0;
    Text reason;
    Text rest;
};

StatusLine readStatusLine(Text text) {
    StatusLine line;
    if (!take(text, "HTTP/") || text.empty()) return line;
    text.remove_prefix(1);
    takeDigits(text);
    if (!take(text, ".")) return line;
    takeDigits(text);
    if (!take(text, " ")) return line;
    const std::string code(text.substr(0, 3));
    if (takeDigits(text) != 3 || !take(text, " ")) return line;
    const std::size_t end = text.find('\r');
    if (end == Text::npos || text.substr(end, 2) != kLineEnd) return line;
    line.isValid = true;
    line.code = std::stoi(code);
    line.reason = text.substr(0, end);
    line.rest = text.substr(end + 2);
    return line;
}

// Whether all lines are of the plain kind, a name and a value, or folded ones after such a line.
bool isPlain(Text fields) {
    for (bool first = true; !fields.empty() && !take(fields, kLineEnd); first = false) {
        const std::size_t end = fields.find(kLineEnd);
        const Text line = fields.substr(0, end);
        const bool isFolded = !first && (line.front() == ' ' || line.front() == '\t');
        if (end == Text::npos || line.find('\r') != Text::npos ||
            (!isFolded && (line.find(':') == Text::npos || line.front() == '\r')))
            return false;
        fields.remove_prefix(end + 2);
    }
    return true;
}

Text handedOut(const char* (*get)(void*, std::uint32_t*), void* response) {
    std::uint32_t length = 0;
    const char* text = get(response, &length);
    assert(text != nullptr ? std::strlen(text) == length : length == 0);
    return {text, length};
}

// The fields one after the other are the text again, up to the empty line or the end.
void checkFields(void* response, Text text) {
    const std::uint32_t count = VeHttpGetFieldCount(response);
    for (std::uint32_t i = 0; i < count; ++i) {
        const bool selected = VeHttpGetFieldInfo(response, i);
        assert(selected);
        const bool found = take(text, handedOut(VeHttpGetFieldName, response)) && take(text, ":") &&
                           take(text, handedOut(VeHttpGetFieldValue, response)) && take(text, kLineEnd);
        assert(found);
    }
    assert(text.empty() || take(text, kLineEnd));
    const bool selected = VeHttpGetFieldInfo(response, count);
    assert(!selected && handedOut(VeHttpGetFieldName, response).empty());
    assert(handedOut(VeHttpGetFieldValue, response).empty());
}

void checkStatusLine(void* response, const char* begin, Text text, const StatusLine& line) {
    assert(IsValidResponsePtr(response) && VeHttpGetStatusCode(response) == line.code);
    assert(handedOut(VeHttpGetReasonPhrase, response) == line.reason);
    assert(VeHttpFirstResponseHeader(response) == begin + (text.size() - line.rest.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* input = reinterpret_cast<const char*>(data);
    const std::unique_ptr<char, decltype(&std::free)> exact(strndup(input, size), std::free);
    const Text text = exact.get();
    const StatusLine line = readStatusLine(text);

    const Response plain(VeHttpParseResponse(exact.get(), false));
    assert((plain != nullptr) == line.isValid);
    const Response whole(VeHttpParseResponse(exact.get(), true));
    assert(whole == nullptr || line.isValid);
    if (plain == nullptr) return 0;

    checkStatusLine(plain.get(), exact.get(), text, line);
    assert(VeHttpGetFieldCount(plain.get()) == 0);
    assert(whole != nullptr || !isPlain(line.rest));
    if (whole == nullptr) return 0;
    checkStatusLine(whole.get(), exact.get(), text, line);
    checkFields(whole.get(), line.rest);
    return 0;
}
