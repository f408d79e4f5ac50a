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
using Sizes = std::vector<std::size_t>;
using Stream = support::FakeTransport<DripClient>;

TEST(NetBase, SendsWhenTheBufferWouldOverflowAndAtTheFlush) {
    const struct {
        Sizes blocks;  // written one after the other
        Sizes sent;    // what the transport gets, the last of it ...
        bool atFlush;  // ... with the flush
    } cases[] = {
        {{}, {}, false},
        {{1, 2, 3}, {6}, true},
        {{4096}, {4096}, true},
        {{1, 4095}, {4096}, true},
        {{4096, 1}, {4096, 1}, true},
        {{4000, 100}, {4000, 100}, true},
        {{1, 4096}, {1, 4096}, true},
        {{4097}, {4096, 1}, true},
        {{10000}, {4096, 4096, 1808}, true},
        {{100, 5000, 4}, {100, 4096, 908}, true},
    };
    for (const auto& c : cases) {
        Stream stream;
        std::string expected;
        for (const std::size_t size : c.blocks) {
            std::string block;
            while (block.size() < size)
                block += static_cast<char>((expected.size() + block.size()) % 251);
            expected += block;
            EXPECT_TRUE(stream.writeBuffer(block.data(), static_cast<std::uint32_t>(size)));
        }
        EXPECT_EQ(stream.writes.size() + c.atFlush, c.sent.size());
        EXPECT_TRUE(stream.flushBuffer());
        ASSERT_EQ(stream.writes.size(), c.sent.size());
        for (std::size_t i = 0; i < c.sent.size(); ++i)
            EXPECT_EQ(stream.writes[i].size(), c.sent[i]);
        EXPECT_EQ(stream.written(), expected);
        EXPECT_EQ(stream.bytesWritten(), expected.size());
    }
}

TEST(NetBase, ReadsAcrossAsManyRefillsAsItTakes) {
    for (const bool error : {false, true}) {
        Stream stream;
        stream.input = std::string(6000, 'a') + "rest";
        stream.inputEndsInError = error;
        stream.pieceSize = 1500;
        std::string got(6000, '\0');
        EXPECT_TRUE(stream.readBuffer(got.data(), 1) && stream.readBuffer(&got[1], 5999));
        EXPECT_TRUE(stream.readBuffer(nullptr, 0));
        EXPECT_EQ(got, std::string(6000, 'a'));
        EXPECT_EQ(stream.reads, 4u);
        EXPECT_FALSE(stream.readBuffer(got.data(), 5));
        EXPECT_EQ(stream.bytesRead(), 6004u);
    }
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
    EXPECT_EQ(Stream(stream).bytesWritten(), 3u);
    EXPECT_TRUE(stream.flushBuffer());
    EXPECT_EQ(stream.written(), "xz");
}

TEST(NetBase, FailsWithTheWriteThatFails) {
    const std::string block(20000, 'x');
    for (const bool failsShort : {false, true}) {
        // Writes 0 (what was queued) and 5 (the flush) come from the buffer, 1 to 4 straight from the block.
        for (std::size_t failing = 0; failing < 6; ++failing) {
            Stream stream;
            stream.failingWrite = failing;
            stream.failsShort = failsShort;
            EXPECT_TRUE(stream.writeBuffer("abc", 3));
            EXPECT_EQ(stream.writeBuffer(block.data(), 20000), failing == 5);
            EXPECT_TRUE(failing < 5 || !stream.flushBuffer());
            EXPECT_EQ(stream.writes.size(), failing);
            EXPECT_EQ(stream.isStreamGood(), failing != 0 && failing != 5);
        }
    }
}

TEST(NetBase, BracketsTheTransportAndStopsWhereABeginSaysSo) {
    class Bracketed : public Stream {
      public:
        std::string calls;
        std::uint32_t goOn = 2;
        std::uint32_t readBegin() override { return calls += 'r', goOn; }
        void readEnd() override { calls += 'R'; }
        std::uint32_t writeBegin() override { return calls += 'w', goOn; }
        void writeEnd() override { calls += 'W'; }
    } stream;
    const std::string block(9000, 'x');
    char got;
    stream.input = "a";
    EXPECT_TRUE(stream.writeBuffer(block.data(), 9000) && stream.flushBuffer() && stream.readBuffer(&got, 1));
    stream.goOn = 0;
    EXPECT_FALSE(stream.readBuffer(&got, 1) || stream.writeBuffer(block.data(), 9000));
    EXPECT_TRUE(stream.writeBuffer("x", 1) && !stream.flushBuffer());
    stream.goOn = 1;
    stream.failingWrite = stream.writes.size() + 1;
    EXPECT_FALSE(stream.writeBuffer(block.data(), 9000));
    EXPECT_EQ(stream.calls, "wWwWrRrwwwWwW");
}

TEST(NetBase, PassesSingleNumbersPastTheBuffer) {
    Stream stream;
    stream.input = "\0\1\2\3\4"s;
    std::uint32_t number = 7;
    EXPECT_TRUE(stream.writeBuffer("x", 1) && stream.writeNumber(0xFFFDFFFD) && stream.readNumber(number));
    EXPECT_EQ(stream.written(), "\xFF\xFD\xFF\xFD");
    EXPECT_EQ(number, 0x00010203u);
    EXPECT_FALSE(stream.readNumber(number));
    EXPECT_EQ(number, 0u);
}

// A message with every kind of value, and its bytes.
const std::string kMessage =
    "QUIL\xFF\xFD\xFF\xFD\0\0\0\4"
    "\1\2\3\xFE"
    "\0\0\0\0\0\0\0\1"                             // false, true
    "\0\0\0\2ab\0\0\0\0"                           // texts
    "\0\0\0\3\1\0\3\0\0\0\0"                       // blocks
    "\0\0\0\1K\0\0\0\2vw"                          // an attribute
    "\0\0\0\2\0\0\0\1A\0\0\0\1B\0\0\0\1C\0\0\0\0"  // a list of two
    "END!"s;

struct Values {
    std::uint32_t type = 9, version = 9, number = 9;
    bool no = true, yes = false;
    CText ab = "before", empty = "before";
    CData block, none;
    Attribute attribute{"before", "before"};
    std::unique_ptr<AttributeList> list = std::make_unique<AttributeList>();

    bool write(Drip& stream) const {
        return stream.marshallHeader(type, version) && stream.marshallULONG(number) &&
               stream.marshallRETCODE(no) && stream.marshallRETCODE(yes) && stream.marshallText(ab) &&
               stream.marshallText(empty) && stream.marshallData(block) && stream.marshallData(none) &&
               stream.marshallAttribute(attribute) && stream.marshallAttributeList(*list);
    }
    bool read(Drip& stream) {
        AttributeList* received = nullptr;
        const bool done = stream.unmarshallHeader(type, version) && stream.unmarshallULONG(number) &&
                          stream.unmarshallRETCODE(no) && stream.unmarshallRETCODE(yes) &&
                          stream.unmarshallText(ab) && stream.unmarshallText(empty) &&
                          stream.unmarshallData(block) && stream.unmarshallData(none) &&
                          stream.unmarshallAttribute(attribute) && stream.unmarshallAttributeList(received);
        list.reset(received);
        return done && stream.unmarshallFooter();
    }
};

TEST(Drip, WritesAMessageInOnePieceAtItsFooter) {
    Values values;
    values.type = 4, values.version = 0xFFFDFFFD, values.number = 0x010203FE;
    values.no = false, values.yes = true;
    values.ab = "ab", values.empty = "";
    values.block.SetEqualTo("\1\0\3", 3, 0);
    values.attribute = Attribute("K", "vw");
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

TEST(Drip, RefusesAWrongMarkBeforeWhatFollowsIt) {
    for (const std::string& mark : {"quil"s, "QUI\0"s, "XUIL"s, "END?"s}) {
        Stream header, footer;
        header.input = footer.input = mark + "\xFF\xFD\xFF\xFD\0\0\0\4"s;
        std::uint32_t type, version;
        EXPECT_FALSE(header.unmarshallHeader(type, version) || footer.unmarshallFooter());
        EXPECT_FALSE(header.isStreamGood() || footer.isStreamGood());
        EXPECT_EQ(header.bytesRead(), 4u);
    }
}

TEST(Drip, ReadsAnyNumberButZeroAsTrue) {
    Stream stream;
    stream.input = "\0\0\0\2\x80\0\0\0"s;
    bool ok = false;
    EXPECT_TRUE(stream.unmarshallRETCODE(ok) && ok);
    EXPECT_TRUE(stream.unmarshallRETCODE(ok) && ok);
    EXPECT_FALSE(stream.unmarshallRETCODE(ok) || ok);
}

TEST(Drip, LeavesTheCharactersOfATextThatDoesNotFit) {
    Stream stream;
    stream.input = "\0\0\0\36"s + std::string(30, 'a') + "\0\0\0\37"s + std::string(31, 'b');
    CTextLocal<31> small;
    EXPECT_TRUE(stream.unmarshallText(small));
    EXPECT_EQ(small.GetTextEx(), std::string(30, 'a'));
    EXPECT_FALSE(stream.unmarshallText(small));
    EXPECT_EQ(stream.bytesRead(), 38u);
}

TEST(Drip, TakesALengthForAClaimOnly) {
    const std::string many(3 * 1024 * 1024, 'x'), itsLength = "\0\x30\0\0"s;
    for (const std::string& length :
         {"\xFF\xFF\xFF\xFF"s, "\xFF\xFF\xFF\xFE"s, "\x7F\xFF\xFF\xFF"s, itsLength}) {
        Stream texts, blocks;
        texts.input = blocks.input = length + many;
        CText text("old");
        CData data;
        EXPECT_EQ(texts.unmarshallText(text), length == itsLength);
        EXPECT_EQ(blocks.unmarshallData(data), length == itsLength);
        EXPECT_LE(std::max(text.GetBufferSize(), data.GetBufferSize()), 2 * many.size());
        EXPECT_EQ(std::strlen(text.GetTextEx()), text.Length());
        EXPECT_EQ(data.GetDataSize(), length == itsLength ? many.size() : 0);
    }
}

TEST(Drip, HandsOverTheListAsFarAsItCame) {
    const std::string input =
        "\0\0\0\3\0\0\0\1A\0\0\0\1B\0\0\0\1a\0\0\0\1C\0\0\0\1D\0\0\0\1E"s;  // "a" is "A"
    for (std::size_t size = 0; size <= input.size(); ++size) {
        Stream stream;
        stream.input = input.substr(0, size);
        AttributeList* list = nullptr;
        EXPECT_EQ(stream.unmarshallAttributeList(list), size == input.size());
        const std::unique_ptr<AttributeList> owned(list);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(list->length(), size < 14 ? 0u : size < 34 ? 1u : 2u);
        EXPECT_TRUE(list->length() == 0 || list->getValue("A") == "B"s);
    }
}

}  // namespace
