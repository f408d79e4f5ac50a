// The parser of an application server's response header: what it takes and what it refuses.
#include <gtest/gtest.h>

#include <string>

#include "cgi/VeHttpResponse.h"

namespace {

// The number of header fields, -1 when the text is refused.
int fieldsOf(const std::string& text) {
    void* response = VeHttpParseResponse(text.c_str(), true);
    const int count = response != nullptr ? static_cast<int>(VeHttpGetFieldCount(response)) : -1;
    VeHttpReleaseResponse(response);
    return count;
}

TEST(HttpResponse, TakesWhatIsAHeaderAndRefusesAllElse) {
    const std::pair<const char*, int> good[] = {
        {"HTTP/1.1 404 Not  found \r\n", 0},
        {"HTTP/x12. 012 \r\n\r\nbody: no field\r\n", 0},
        {"HTTP/..1 200 OK\r\nA:1\r\nB:\r\n:\r\n", 3},
        {"HTTP/1.0 200 OK\r\nA: 1\r\n\t2\r\n  3:\r\nB:x\r\n\r\n", 2},
    };
    for (const auto& [text, fields] : good)
        EXPECT_EQ(fieldsOf(text), fields) << text;
    for (const char* bad :
         {"", "HTTP/", "http/1.0 200 OK\r\n", "HTTP/1 200 OK\r\n", "HTTP/1.0x 200 OK\r\n",
          "HTTP/1.0  200 OK\r\n", "HTTP/1.0 20 OK\r\n", "HTTP/1.0 2000 OK\r\n", "HTTP/1.0 200OK\r\n",
          "HTTP/1.0 200\r\n", "HTTP/1.0 200 OK", "HTTP/1.0 200 OK\n", "HTTP/1.0 200 OK\rX\r\n",
          "HTTP/1.0 200 OK\r\nno colon\r\n", "HTTP/1.0 200 OK\r\nA:1", "HTTP/1.0 200 OK\r\nA:1\n",
          "HTTP/1.0 200 OK\r\nA:1\rB\r\n", "HTTP/1.0 200 OK\r\nA:1\r\n 2", "HTTP/1.0 200 OK\r\nA:1\r\n\rX"})
        EXPECT_EQ(fieldsOf(bad), -1) << bad;
}

TEST(HttpResponse, RefusesWhatIsNoResponse) {
    void* const nowhere = reinterpret_cast<void*>(16);
    EXPECT_EQ(VeHttpGetStatusCode(nowhere), 500);
    VeHttpReleaseResponse(nowhere);
}

}  // namespace
