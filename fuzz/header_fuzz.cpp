// Response headers with any content: what is accepted, and that everything handed out lies inside the text.
//
// Input: the header.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Fuzz.h"
#include "cgi/VeHttpResponse.h"

namespace {

std::string handedOut(const char* (*get)(void*, std::uint32_t*), void* response) {
    std::uint32_t length = 0;
    const char* text = get(response, &length);
    assert(text != nullptr ? std::strlen(text) == length : length == 0);
    return {text, text + length};
}

// The status line from its code on and the fields, put together again, are the text, up to the empty line or
// the end.
void check(void* response, const std::string& text, std::size_t fieldsAt, bool takesFields) {
    const std::string code = std::to_string(1000 + VeHttpGetStatusCode(response)).substr(1);
    std::string again = " " + code + " " + handedOut(VeHttpGetReasonPhrase, response) + "\r\n";
    const std::size_t codeAt = fieldsAt - again.size();
    std::uint32_t count = 0;
    for (; VeHttpGetFieldInfo(response, count); ++count) {
        again += handedOut(VeHttpGetFieldName, response) + ":";
        again += handedOut(VeHttpGetFieldValue, response) + "\r\n";
    }
    assert(IsValidResponsePtr(response) && count == VeHttpGetFieldCount(response));
    assert(takesFields || count == 0);
    assert(handedOut(VeHttpGetFieldName, response) + handedOut(VeHttpGetFieldValue, response) == "");
    assert(text.compare(0, 5, "HTTP/") == 0 && codeAt > 6 && text.compare(codeAt, again.size(), again) == 0);
    const std::string rest = text.substr(codeAt + again.size());
    assert(!takesFields || rest.empty() || rest.compare(0, 2, "\r\n") == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, std::find(data, data + size, 0));
    const std::unique_ptr<char, decltype(&std::free)> exact(strdup(text.c_str()), std::free);
    bool isResponse = true;
    for (const bool takesFields : {false, true}) {
        void* response = VeHttpParseResponse(exact.get(), takesFields);
        assert(isResponse || response == nullptr);
        isResponse = response != nullptr;
        if (!isResponse) continue;
        const auto fieldsAt = static_cast<std::size_t>(VeHttpFirstResponseHeader(response) - exact.get());
        check(response, text, fieldsAt, takesFields);
        VeHttpReleaseResponse(response);
    }
    return 0;
}
