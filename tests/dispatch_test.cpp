// The conversation with an application server: the request's bytes, the messages served, local files sent.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "protocol/QuilClient.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"
#include "support/Wire.h"

namespace {

using namespace std::string_literals;
namespace wire = support::wire;
using Texts = std::vector<std::string>;

class Client : public support::FakeTransport<QuilClient> {
  public:
    using QuilClient::connectToServer;

    Texts seen;           // by the callback, "type:data"
    std::string refused;  // what it answers with false

    bool connectToServer(const char*, const char*) override { return false; }

    // The server waits for the answer to each message.
    void expectMessages(const Texts& messages) {
        for (const std::string& message : messages)
            cuts.insert((input += message).size());
    }
    bool dispatch(bool parseFilePaths = false) {
        const DispatchCallback see = [](QuilClient& client, TQUILReqType type, const char* data,
                                        std::uint32_t length, void* user) {
            auto* self = static_cast<Client*>(user);
            EXPECT_EQ(&client, self);
            EXPECT_EQ(data[length], 0);
            self->seen.push_back(std::to_string(type) + ":" + std::string(data, length));
            return self->seen.back() != self->refused;
        };
        return DispatchQuilRequests(see, this, parseFilePaths);
    }
};

// ---- the request ------------------------------------------------------------------------------------------

TEST(SendQuilRequest, WritesTheWholeRecordInOneMessage) {
    const support::TempDir folder;
    support::writeFile(folder / "page", "");
    const timespec times[] = {{1, 0}, {0x3B9ACA7F, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (folder / "page").c_str(), times, 0), 0);
    wire::Request expected;
    expected.fileTime = 0x3B9ACA7F;
    expected.post = "x\0y"s;
    expected["QUERY_STRING"] = "a=1";
    expected["PATH_TRANSLATED"] = folder / "page";
    expected["HTTP_COOKIE"] = "c=2; VelartoClient=shop";
    expected["FULLHEADER"] = "last";

    TQuilRequest request;
    request.SetPostArgs(reinterpret_cast<const unsigned char*>("x\0y"), 3);
    for (const char* name : {"QUERY_STRING", "PATH_TRANSLATED", "FULLHEADER"})
        request.SetParamAttribute(name, expected[name].c_str());
    request.SetParamAttribute("HTTP_COOKIE", "c=2");
    Client client;
    client.setClientName("shop");
    EXPECT_TRUE(client.SendQuilRequest(&request));
    EXPECT_EQ(client.writes, Texts{wire::encode(expected)});
    const std::string begin =
        "QUIL\xFF\xFD\xFF\xFD\0\0\0\1\x3B\x9A\xCA\x7F\0\0\0\3x\0y\0\0\0\x0CQUERY_STRING\0\0\0\3a=1"
        "\0\0\0\x09PATH_INFO\0\0\0\0"s;
    EXPECT_EQ(client.written().substr(0, begin.size()), begin);
    EXPECT_EQ(request.GetParamAttribute("HTTP_COOKIE")->value().GetTextEx(), expected["HTTP_COOKIE"]);

    request.SetParamAttribute("PATH_TRANSLATED", (folder / "missing").c_str());
    Client second;
    EXPECT_TRUE(second.SendQuilRequest(&request));
    EXPECT_EQ(second.written().substr(12, 4), "\0\0\0\0"s);
    EXPECT_FALSE(second.SendQuilRequest(nullptr));
}

TEST(SendQuilRequest, StopsAtTheFirstWriteThatFails) {
    const std::vector<unsigned char> body(10000);
    for (std::size_t failing = 0; failing <= 4; ++failing) {
        TQuilRequest request;
        request.SetPostArgs(body.data(), 10000);
        Client client;
        client.failingWrite = failing;
        EXPECT_EQ(client.SendQuilRequest(&request), failing == 4);
        // The cookies change once the body is on its way.
        EXPECT_EQ(request.GetParamAttribute("HTTP_COOKIE")->value().IsEmpty(), failing < 3);
    }
}

// ---- the dispatch loop ------------------------------------------------------------------------------------

const std::string kBig(10000, 'b'), kHeader = "HTTP/1.0 200 OK\r\n\r\n";
const Texts kAnswer = {wire::header(kHeader), wire::body("a\0b"s), wire::body(""), wire::body(kBig),
                       wire::end()};
const Texts kSeen = {"6:" + kHeader, "4:a\0b"s, "4:", "4:" + kBig, "7:"};
const std::string kAck4 = "QUIL\xFF\xFD\xFF\xFD\0\0\0\4\0\0\0\1END!"s;
const std::string kAck6 = "QUIL\xFF\xFD\xFF\xFD\0\0\0\6\0\0\0\1END!"s;
const std::string kRefusal = "QUIL\xFF\xFD\xFF\xFD\0\0\0\3\0\0\0\0END!"s;

TEST(DispatchQuilRequests, AcknowledgesDataInOneWriteEachAndShowsEveryMessage) {
    for (const std::size_t size : {std::size_t{4096}, std::size_t{1}}) {
        Client client, deaf;
        client.pieceSize = deaf.pieceSize = size;
        client.expectMessages(kAnswer);
        deaf.expectMessages(kAnswer);
        EXPECT_TRUE(client.dispatch());
        EXPECT_TRUE(deaf.DispatchQuilRequests(nullptr, nullptr, false));
        EXPECT_EQ(client.seen, kSeen);
        EXPECT_EQ(client.writes, (Texts{kAck6, kAck4, kAck4, kAck4}));
        EXPECT_EQ(deaf.writes, client.writes);
    }
}

TEST(DispatchQuilRequests, FailsWhereTheServerBreaksOff) {
    const std::string all = wire::header(kHeader) + wire::end();
    const std::size_t beforeEnd = all.size() - wire::end().size();
    for (std::size_t size = 0; size < all.size(); ++size) {
        Client client;
        client.input = all.substr(0, size);
        client.cuts = {beforeEnd};
        client.inputEndsInError = size % 2 == 0;
        EXPECT_FALSE(client.dispatch());
        EXPECT_EQ(client.seen.size(), size < beforeEnd ? 0u : 1u);
    }
}

TEST(DispatchQuilRequests, EndsAtWhatItDoesNotUnderstandOrMayNotGoOn) {
    const struct {
        const char* description;
        Texts messages;
        std::string refused;
        std::size_t seen;  // the last of them ends it
        std::size_t acknowledged;
    } cases[] = {
        {"wrong mark", {"QUIT\xFF\xFD\xFF\xFD\0\0\0\7END!"s}, "", 0, 0},
        {"wrong version", {"QUIL\xFD\xFF\xFD\xFF\0\0\0\7END!"s}, "", 0, 0},
        {"type 5", {wire::message(5), wire::end()}, "", 1, 0},
        {"type 3", {wire::message(3), wire::end()}, "", 1, 0},
        {"a huge type", {wire::message(0xFFFFFFFF), wire::end()}, "", 1, 0},
        {"a body without footer", {wire::message(4, wire::counted("a") + "x")}, "", 0, 0},
        {"an end without footer", {wire::message(7, "x")}, "", 0, 0},
        {"a path without footer", {wire::message(2, wire::counted("/") + "x"), wire::end()}, "", 1, 0},
        {"the header is refused", kAnswer, kSeen[0], 1, 1},
        {"the second body is refused", kAnswer, kSeen[2], 3, 3},
        {"the end is refused", kAnswer, kSeen[4], 5, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        Client client;
        client.refused = c.refused;
        client.expectMessages(c.messages);
        EXPECT_FALSE(client.dispatch());
        EXPECT_EQ(client.seen.size(), c.seen);
        EXPECT_EQ(client.writes.size(), c.acknowledged);
    }
}

TEST(DispatchQuilRequests, LosesAcknowledgementsWhenTheServerDoesNotWaitOrIsGone) {
    Client hurried, lost;
    hurried.expectMessages(kAnswer);
    hurried.cuts.clear();
    EXPECT_TRUE(hurried.dispatch());
    EXPECT_EQ(hurried.seen, kSeen);
    lost.expectMessages(kAnswer);
    lost.failingWrite = 1;
    EXPECT_FALSE(lost.dispatch());
    EXPECT_EQ(lost.seen, (Texts{kSeen[0], kSeen[1]}));
}

// ---- files ------------------------------------------------------------------------------------------------

TEST(FileService, AnswersWithARegularFileOrRefuses) {
    const support::TempDir folder;
    support::writeFile(folder / "page", "a\0b"s);
    support::writeFile(folder / "big", kBig);
    support::writeFile(folder / "empty", "");
    support::writeFile(folder / "back\\slash", "in the name");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const struct {
        std::string path;
        bool parseFilePaths;
        std::string reply;
    } cases[] = {
        {folder / "page", false, "QUIL\xFF\xFD\xFF\xFD\0\0\0\3\0\0\0\1\0\0\0\3a\0bEND!"s},
        {folder / "big", true, wire::fileReply(kBig)},
        {folder / ".\\page", true, wire::fileReply("a\0b"s)},
        {folder / ".\\page", false, kRefusal},
        {folder / "back\\slash", false, wire::fileReply("in the name")},
        {folder / "missing", false, kRefusal},
        {folder / "empty", false, kRefusal},
        {folder / "pipe", false, kRefusal},
        {folder.path(), false, kRefusal},
        {"", true, kRefusal},
        {folder / "page\0x"s, false, kRefusal},
    };
    for (const auto& c : cases) {
        Client client;
        client.expectMessages({wire::fileRequest(c.path), wire::end()});
        EXPECT_TRUE(client.dispatch(c.parseFilePaths));
        EXPECT_EQ(client.written(), c.reply) << c.path;
        std::string path = c.path;
        if (c.parseFilePaths) std::replace(path.begin(), path.end(), '\\', '/');
        EXPECT_EQ(client.seen, (Texts{"2:" + path, "7:"}));
    }
}

// ---- the scratch buffer -----------------------------------------------------------------------------------

TEST(ScratchBuffer, KeepsBetweenItsBoundsUnlessMoreIsAskedFor) {
    Client client;
    const std::uint32_t steps[][2] = {
        // asked for, the least size after it; growth is rounded up by at most 4096
        {0, 5120},    {100, 5120},      {6000, 6000},   {1, 6000},        {100000, 100000},
        {0, 32767},   {20000, 32767},   {1, 32767},     {100000, 100000}, {32767, 100000},
        {5119, 5120}, {100000, 100000}, {32766, 32766}, {5121, 32766},
    };
    for (const auto& [asked, least] : steps) {
        const std::uint32_t size = client.GetScratchBuffer(asked).GetBufferSize();
        EXPECT_TRUE(least <= size && size <= least + 4096) << asked << " gives " << size;
    }
    EXPECT_EQ(Client().GetScratchBuffer(0).GetBufferSize(), 5120u);
}

}  // namespace
