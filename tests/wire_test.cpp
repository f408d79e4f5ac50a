// NetBase and Drip over a transport in memory: what is sent when, every byte of every encoding, and messages
// that arrive in any pieces or break off anywhere.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/FakeTransport.h"
#include "wire/DripClient.h"

namespace {

using namespace std::string_literals;
using Sizes = std::vector<std::uint32_t>;

using Stream = support::FakeTransport<DripClient>;

TEST(NetBase, SendsWhenTheBufferWouldOverflowAndAtTheFlush) {
    const std::pair<Sizes, Sizes> cases[] = {
        {{1, 4095}, {4096}},
        {{1, 4096}, {1, 4096}},
        {{4000, 100}, {4000, 100}},
        {{100, 5000, 4}, {100, 4096, 908}},
    };
    std::string data;
    for (int i = 0; data.size() < 50000; ++i)
        data += std::to_string(i);
    for (const auto& [blocks, expected] : cases) {
        Stream stream;
        for (const std::uint32_t size : blocks)
            EXPECT_TRUE(stream.writeBuffer(&data[stream.bytesWritten()], size));
        EXPECT_TRUE(stream.flushBuffer());
        Sizes sent;
        for (const std::string& write : stream.writes)
            sent.push_back(static_cast<std::uint32_t>(write.size()));
        EXPECT_EQ(sent, expected);
        EXPECT_TRUE(stream.written == data.substr(0, stream.bytesWritten()));
    }
}

// In the middle of a large block: nothing may follow the gap.
TEST(NetBase, StopsAtTheWriteThatFails) {
    Stream stream;
    stream.failingWrite = 2;
    EXPECT_FALSE(stream.writeBuffer(std::string(20000, 'x').data(), 20000));
}

// A message with every kind of value.
const std::string kMessage =
    "QUIL\xFF\xFD\xFF\xFD\0\0\0\4\0\0\0\1"         // a header, true
    "\0\0\0\2ab"                                   // a text
    "\0\0\0\3\1\0\3\0\0\0\0"                       // blocks
    "\0\0\0\2\0\0\0\1A\0\0\0\1B\0\0\0\1C\0\0\0\0"  // a list of two
    "END!"s;

// Takes the message apart and puts it together again on the other stream.
bool copyMessage(Drip& from, Drip& to) {
    std::uint32_t type = 0, version = 0;
    bool isTrue = false;
    CText text = "before";
    CData block, none;
    none.SetEqualTo("before", 6, 0);
    AttributeList* list = nullptr;
    const bool isRead = from.unmarshallHeader(type, version) && from.unmarshallRETCODE(isTrue) &&
                        from.unmarshallText(text) && from.unmarshallData(block) &&
                        from.unmarshallData(none) && from.unmarshallAttributeList(list) &&
                        from.unmarshallFooter();
    EXPECT_TRUE(!isRead || (type == 4 && isTrue));
    const bool done = isRead && to.marshallHeader(type, version) && to.marshallRETCODE(isTrue) &&
                      to.marshallText(text) && to.marshallData(block) && to.marshallData(none) &&
                      to.marshallAttributeList(*list) && to.marshallFooter();
    delete list;
    return done;
}

TEST(Drip, TakesAMessageInAnyPiecesButNoneThatBreaksOffAndSendsItInOne) {
    for (std::size_t at = 0; at <= kMessage.size(); ++at) {
        Stream split, copy, prefix;
        split.input = kMessage;
        split.cuts = {at / 2, at};
        EXPECT_TRUE(copyMessage(split, copy)) << at;
        EXPECT_EQ(copy.writes, std::vector<std::string>{kMessage}) << at;
        prefix.input = kMessage.substr(0, at);
        EXPECT_EQ(copyMessage(prefix, copy), at == kMessage.size()) << at;
    }
}

TEST(Drip, BelievesALengthAsFarAsBytesCome) {
    Stream stream;
    stream.input = "\x3F\xFF\xFF\xFFtext"s;
    CText text;
    EXPECT_FALSE(stream.unmarshallText(text));
    EXPECT_LE(text.GetBufferSize(), 2u << 20);
    EXPECT_STREQ(text.GetTextEx(), "");
}

}  // namespace
