// Response headers with any content: what is accepted, and that everything handed out lies inside the text.
//
// Input: the header.
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

bool take(Text& text, Text expected) {
    if (text.substr(0, expected.size()) != expected) return false;
    text.remove_prefix(expected.size());
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

// The status line, put together again, ends where the fields begin; what follows it.
Text checkStatusLine(void* response, Text text) {
    const std::size_t size = static_cast<std::size_t>(VeHttpFirstResponseHeader(response) - text.data());
    const std::string line(text.substr(0, size)), code = std::to_string(1000 + VeHttpGetStatusCode(response));
    const std::string end =
        std::string(" ").append(code, 1).append(" ").append(handedOut(VeHttpGetReasonPhrase, response)) +
        "\r\n";
    assert(IsValidResponsePtr(response) && line.substr(0, 5) == "HTTP/" && line.size() > end.size() + 6);
    assert(line.substr(line.size() - end.size()) == end);
    return text.substr(size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* input = reinterpret_cast<const char*>(data);
    const std::unique_ptr<char, decltype(&std::free)> exact(strndup(input, size), std::free);
    const Text text = exact.get();

    const Response plain(VeHttpParseResponse(exact.get(), false));
    const Response whole(VeHttpParseResponse(exact.get(), true));
    assert(plain != nullptr || whole == nullptr);
    if (plain == nullptr) return 0;
    checkStatusLine(plain.get(), text);
    assert(VeHttpGetFieldCount(plain.get()) == 0);
    if (whole != nullptr) checkFields(whole.get(), checkStatusLine(whole.get(), text));
    return 0;
}
