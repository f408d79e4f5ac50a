// The parser of an application server's response header.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "cgi/VeHttpResponse.h"

namespace {

using namespace std::string_literals;

// "code reason", then "|name=value" for each field, or "|" and what follows the status line when fields are
// not parsed; "" when refused. The text ends on the heap, where a sanitizer sees one character too far.
std::string parse(const std::string& text, bool fields) {
    const std::unique_ptr<char, decltype(&std::free)> copy(::strdup(text.c_str()), &std::free);
    void* response = VeHttpParseResponse(copy.get(), fields);
    if (response == nullptr) return "";
    std::uint32_t length = 99, valueLength = 99, count = 0;
    const char* reason = VeHttpGetReasonPhrase(response, &length);
    EXPECT_EQ(reason == nullptr, length == 0);
    std::string all = std::to_string(VeHttpGetStatusCode(response)) + " ";
    if (length != 0) all.append(reason, length);
    const char* rest = VeHttpFirstResponseHeader(response);
    EXPECT_EQ(rest + std::strlen(rest), copy.get() + text.size());  // it lies in the caller's text
    if (!fields) all.append("|").append(rest);
    for (; VeHttpGetFieldInfo(response, count); ++count) {
        const char* name = VeHttpGetFieldName(response, &length);
        const char* value = VeHttpGetFieldValue(response, &valueLength);
        all += "|" + std::string(name, length) + "=" + std::string(value, valueLength);
    }
    EXPECT_EQ(VeHttpGetFieldCount(response), count);
    EXPECT_STREQ(VeHttpGetFieldName(response, nullptr), "");  // past the last field none is selected
    VeHttpReleaseResponse(response);
    return all;
}

TEST(HttpResponse, StatusLine) {
    const char* const cases[][2] = {
        {"HTTP/1.1 404 Not  found \r\nrest", "404 Not  found |rest"},
        {"HTTP/x12. 012 \r\n\r\n", "12 |\r\n"},
        {"HTTP/..1 200 OK\r\n", "200 OK|"},  // the version's first character is taken unseen
    };
    for (const auto& [text, parsed] : cases)
        EXPECT_EQ(parse(text, false), parsed) << text;
    for (const char* text :
         {"", "HTTP/", "http/1.0 200 OK\r\n", " HTTP/1.0 200 OK\r\n", "HTTP/1 200 OK\r\n",
          "HTTP/1x.0 200 OK\r\n", "HTTP/1.0", "HTTP/1.0x 200 OK\r\n", "HTTP/1.0  200 OK\r\n",
          "HTTP/1.0\t200 OK\r\n", "HTTP/1.0 20 OK\r\n", "HTTP/1.0 2000 OK\r\n", "HTTP/1.0 2x0 OK\r\n",
          "HTTP/1.0 200OK\r\n", "HTTP/1.0 200\r\n", "HTTP/1.0 200 OK", "HTTP/1.0 200 OK\n",
          "HTTP/1.0 200 OK\r", "HTTP/1.0 200 OK\rX\r\n"})
        EXPECT_EQ(parse(text, false), "") << text;
}

TEST(HttpResponse, Fields) {
    const char* const cases[][2] = {
        {"\r\nbody: not a field\r\n", ""},
        {"A:1\r\nBC:23\r\nB:\r\n:\r\n", "|A=1|BC=23|B=|="},
        {"A: 1\r\n\t2\r\n  3:\r\nB:x\r\n\r\n", "|A= 1\r\n\t2\r\n  3:|B=x"},
        {"no colon\r\nA:1\nB:2\r\n", "|no colon\r\nA=1\nB:2"},
    };
    for (const auto& [text, fields] : cases)
        EXPECT_EQ(parse("HTTP/1.1 200 OK\r\n"s + text, true), "200 OK"s + fields) << text;
    for (const char* text :
         {"no colon\r\n", "A:1", "A:1\r", "A:1\n", "A:1\rB\r\n", "A:1\r\n 2", "A:1\r\n\r", "A:1\r\n\rX"})
        EXPECT_EQ(parse("HTTP/1.1 200 OK\r\n"s + text, true), "") << text;
}

TEST(HttpResponse, RefusesWhatIsNoResponse) {
    std::uint32_t foreign[64] = {83};
    EXPECT_EQ(VeHttpParseResponse(nullptr, false), nullptr);
    EXPECT_EQ(VeHttpGetStatusCode(nullptr), 500);
    EXPECT_FALSE(IsValidResponsePtr(foreign) || VeHttpGetFieldInfo(foreign, 0));
    VeHttpReleaseResponse(foreign);
}

}  // namespace
