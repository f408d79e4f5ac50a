// NetBase and Drip over a transport in memory: what is sent when, every byte of every encoding, and messages
// that arrive in any pieces or break off anywhere.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/FakeTransport.h"
#include "wire/DripClient.h"

namespace {

using namespace std::string_literals;
using Sizes = std::vector<std::uint32_t>;
using Stream = support::FakeTransport<DripClient>;

TEST(NetBase, SendsWhenTheBufferWouldOverflowAndAtTheFlush) {
    const struct {
        Sizes blocks, sent;  // the last of what is sent goes with the flush
    } cases[] = {
        {{1, 2, 3}, {6}},           {{1, 4095}, {4096}},
        {{4096, 1}, {4096, 1}},     {{1, 4096}, {1, 4096}},
        {{4097}, {4096, 1}},        {{10000}, {4096, 4096, 1808}},
        {{4000, 100}, {4000, 100}}, {{100, 5000, 4}, {100, 4096, 908}},
    };
    std::string data(10000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i % 251);
    for (const auto& c : cases) {
        Stream stream;
        for (const std::uint32_t size : c.blocks)
            EXPECT_TRUE(stream.writeBuffer(&data[stream.bytesWritten()], size));
        EXPECT_EQ(stream.writes.size() + 1, c.sent.size());
        EXPECT_TRUE(stream.flushBuffer() && stream.flushBuffer());
        Sizes sent;
        for (const std::string& write : stream.writes)
            sent.push_back(static_cast<std::uint32_t>(write.size()));
        EXPECT_EQ(sent, c.sent);
        EXPECT_EQ(stream.written(), data.substr(0, stream.bytesWritten()));
    }
}

TEST(NetBase, MovesLargeBlocksInTheTransportsSteps) {
    struct : Stream {
        void moveMoreAtOnce() { setTransportStep(4 * kBufferSize); }
    } stream;
    stream.moveMoreAtOnce();
    stream.input = std::string(50000, 'x') + "tail";
    stream.pieceSize = 60000;
    const Sizes sent = {3, 16384, 16384, 4096, 3136};
    EXPECT_TRUE(stream.writeBuffer("abc", 3) && stream.writeBuffer(stream.input.data(), 40000));
    EXPECT_TRUE(stream.flushBuffer());
    for (std::size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(stream.writes.at(i).size(), sent[i]);
    std::string got(50004, '\0');
    EXPECT_TRUE(stream.readBuffer(&got[0], 10) && stream.readBuffer(&got[10], 49990));
    EXPECT_TRUE(stream.readBuffer(&got[50000], 4) && !stream.readBuffer(&got[0], 5000));
    EXPECT_EQ(got, stream.input);
    EXPECT_EQ(stream.bytesRead(), 50004u);
}

TEST(NetBase, TurnsAroundOnlyWithADrainedBuffer) {
    Stream stream;
    stream.input = "abcdef";
    stream.cuts = {2};
    char got[4];
    EXPECT_TRUE(stream.writeBuffer("x", 1));
    EXPECT_FALSE(stream.readBuffer(got, 1));  // output waits
    EXPECT_TRUE(stream.flushBuffer() && stream.readBuffer(got, 1));
    EXPECT_FALSE(stream.writeBuffer("y", 1));  // 'b' is unread
    EXPECT_TRUE(stream.readBuffer(got, 1) && got[0] == 'b' && stream.writeBuffer("y", 1));
    EXPECT_TRUE(stream.invalidateBuffer() && stream.readBuffer(got, 1));  // drops 'y'
    EXPECT_TRUE(stream.flushBuffer() && stream.writeBuffer("z", 1));      // drops "def"
    EXPECT_TRUE(stream.flushBuffer() && stream.writeNumber(0xFFFDFFFD));  // past the buffer
    EXPECT_EQ(stream.written(), "xz\xFF\xFD\xFF\xFD");
}

TEST(NetBase, FailsWithTheWriteThatFails) {
    const std::string block(20000, 'x');
    // Writes 0 (what was queued) and 5 (the flush) come from the buffer, 1 to 4 straight from the block.
    for (std::size_t failing = 0; failing < 6; ++failing) {
        Stream stream;
        stream.failingWrite = failing;
        EXPECT_TRUE(stream.writeBuffer("abc", 3));
        EXPECT_EQ(stream.writeBuffer(block.data(), 20000), failing == 5);
        EXPECT_TRUE(failing < 5 || !stream.flushBuffer());
        EXPECT_EQ(stream.writes.size(), failing);
    }
}

// A message with every kind of value, and its bytes.
const std::string kMessage =
    "QUIL\xFF\xFD\xFF\xFD\0\0\0\4"
    "\1\2\3\xFE"
    "\0\0\0\0\0\0\0\1"                             // false, true
    "\0\0\0\2ab"                                   // a text
    "\0\0\0\3\1\0\3\0\0\0\0"                       // blocks
    "\0\0\0\2\0\0\0\1A\0\0\0\1B\0\0\0\1C\0\0\0\0"  // a list of two
    "END!"s;

struct Values {
    std::uint32_t type = 9, version = 9, number = 9;
    bool no = true, yes = false;
    CText text = "before";
    CData block, none;
    std::unique_ptr<AttributeList> list = std::make_unique<AttributeList>();

    bool write(Drip& stream) const {
        return stream.marshallHeader(type, version) && stream.marshallULONG(number) &&
               stream.marshallRETCODE(no) && stream.marshallRETCODE(yes) && stream.marshallText(text) &&
               stream.marshallData(block) && stream.marshallData(none) && stream.marshallAttributeList(*list);
    }
    bool read(Drip& stream) {
        AttributeList* received = nullptr;
        const bool done = stream.unmarshallHeader(type, version) && stream.unmarshallULONG(number) &&
                          stream.unmarshallRETCODE(no) && stream.unmarshallRETCODE(yes) &&
                          stream.unmarshallText(text) && stream.unmarshallData(block) &&
                          stream.unmarshallData(none) && stream.unmarshallAttributeList(received);
        list.reset(received);
        return done && stream.unmarshallFooter();
    }
};

TEST(Drip, WritesAMessageInOnePieceAtItsFooter) {
    Values values;
    values.type = 4, values.version = 0xFFFDFFFD, values.number = 0x010203FE;
    values.no = false, values.yes = true, values.text = "ab";
    values.block.SetEqualTo("\1\0\3", 3, 0);
    values.list->addAttribute("A", "B");
    values.list->addAttribute("C", "");
    Stream stream;
    EXPECT_TRUE(values.write(stream) && stream.writes.empty() && stream.marshallFooter());
    EXPECT_EQ(stream.writes, std::vector<std::string>{kMessage});
}

TEST(Drip, ReadsAMessageThatComesInAnyPiecesAndNoneThatBreaksOff) {
    for (std::size_t at = 0; at <= kMessage.size(); ++at) {
        Stream pieces, split, prefix;
        pieces.input = split.input = kMessage;
        pieces.pieceSize = at + 1;
        split.cuts = {at};
        prefix.input = kMessage.substr(0, at);
        prefix.inputEndsInError = at % 2 == 0;
        for (Stream* stream : {&pieces, &split}) {
            Values values;
            values.none.SetEqualTo("before", 6, 0);
            EXPECT_TRUE(values.read(*stream)) << at;
            Stream again;
            EXPECT_TRUE(values.write(again) && again.marshallFooter());
            EXPECT_EQ(again.written(), kMessage) << at;
        }
        EXPECT_EQ(Values().read(prefix), at == kMessage.size()) << at;
    }
}

TEST(Drip, LeavesTheCharactersOfATextThatDoesNotFit) {
    Stream stream;
    stream.input = "\0\0\0\36"s + std::string(30, 'a') + "\0\0\0\37"s + std::string(31, 'b');
    CTextLocal<31> small;
    EXPECT_TRUE(stream.unmarshallText(small) && small.GetTextEx() == std::string(30, 'a'));
    EXPECT_FALSE(stream.unmarshallText(small));
    EXPECT_EQ(stream.bytesRead(), 38u);
}

TEST(Drip, TakesALengthForAClaimOnly) {
    const std::string many(3 * 1024 * 1024, 'x'), itsLength = "\0\x30\0\0"s;
    for (const std::string& length : {"\xFF\xFF\xFF\xFF"s, "\x80\0\0\0"s, "\x7F\xFF\xFF\xFF"s, itsLength}) {
        Stream texts, blocks;
        texts.input = blocks.input = length + many;
        CText text("old");
        CData data;
        EXPECT_EQ(texts.unmarshallText(text), length == itsLength);
        EXPECT_EQ(blocks.unmarshallData(data), length == itsLength);
        EXPECT_LE(std::max(text.GetBufferSize(), data.GetBufferSize()), 2 * many.size());
        EXPECT_EQ(data.GetDataSize(), length == itsLength ? many.size() : 0);
    }
}

}  // namespace
