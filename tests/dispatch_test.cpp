// The conversation with an application server: the request's bytes, the messages served, local files sent.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
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
    EXPECT_EQ(request.GetParamAttribute("HTTP_COOKIE")->value().GetTextEx(), expected["HTTP_COOKIE"]);
}

const std::string kBig(10000, 'b'), kHeader = "HTTP/1.0 200 OK\r\n\r\n";
const Texts kAnswer = {wire::header(kHeader), wire::body("a\0b"s), wire::body(""), wire::body(kBig),
                       wire::end()};
const Texts kSeen = {"6:" + kHeader, "4:a\0b"s, "4:", "4:" + kBig, "7:"};
const std::string kAck4 = "QUIL\xFF\xFD\xFF\xFD\0\0\0\4\0\0\0\1END!"s;
const std::string kAck6 = "QUIL\xFF\xFD\xFF\xFD\0\0\0\6\0\0\0\1END!"s;

TEST(DispatchQuilRequests, AcknowledgesDataInOneWriteEachAndShowsEveryMessage) {
    for (const std::size_t size : {4096u, 1u}) {
        Client client;
        client.pieceSize = size;
        client.expectMessages(kAnswer);
        EXPECT_TRUE(client.dispatch());
        EXPECT_EQ(client.seen, kSeen);
        EXPECT_EQ(client.writes, (Texts{kAck6, kAck4, kAck4, kAck4}));
    }
}

// Acknowledgements have no room between messages that are already there.
TEST(DispatchQuilRequests, ServesAServerThatDoesNotWait) {
    Client client;
    for (const std::string& message : kAnswer)
        client.input += message;
    EXPECT_TRUE(client.dispatch());
    EXPECT_EQ(client.seen, kSeen);
    EXPECT_TRUE(client.writes.size() < 4);
}

TEST(DispatchQuilRequests, EndsAtTheMessageThatTheCallbackRefuses) {
    for (std::size_t i = 0; i < kSeen.size(); ++i) {
        Client client;
        client.refused = kSeen[i];
        client.expectMessages(kAnswer);
        EXPECT_FALSE(client.dispatch());
        EXPECT_EQ(client.seen, Texts(&kSeen[0], &kSeen[i] + 1));
        EXPECT_EQ(client.writes.size(), std::min<std::size_t>(i + 1, 4));  // the end needs none
    }
}

TEST(FileService, AnswersWithARegularFileOrRefuses) {
    const support::TempDir folder;
    support::writeFile(folder / "page", "a\0b"s);
    support::writeFile(folder / "big", kBig);
    support::writeFile(folder / "empty", "");
    support::writeFile(folder / "huge", "");
    std::filesystem::resize_file(folder / "huge", (std::uintmax_t{4} << 30) + 10);  // a hole: takes no disk
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const std::string page = "QUIL\xFF\xFD\xFF\xFD\0\0\0\3\0\0\0\1\0\0\0\3a\0bEND!"s;
    const std::string refusal = "QUIL\xFF\xFD\xFF\xFD\0\0\0\3\0\0\0\0END!"s;
    const struct {
        std::string path;
        bool parseFilePaths;
        std::string reply;
    } cases[] = {
        {folder / "page", false, page},        {folder / "big", true, wire::fileReply(kBig)},
        {folder / ".\\page", true, page},      {folder / ".\\page", false, refusal},
        {folder / "missing", false, refusal},  {folder / "empty", false, refusal},
        {folder / "huge", false, refusal},     {folder / "pipe", false, refusal},
        {folder.path(), false, refusal},       {"", true, refusal},
        {folder / "page\0x"s, false, refusal},
    };
    for (const auto& c : cases) {
        Client client;
        client.expectMessages({wire::fileRequest(c.path), wire::end()});
        EXPECT_TRUE(client.dispatch(c.parseFilePaths));
        EXPECT_EQ(client.written(), c.reply) << c.path;
        EXPECT_EQ(client.seen.size(), 2u);
    }
}

TEST(ScratchBuffer, KeepsBetweenItsBoundsUnlessMoreIsAskedFor) {
    Client client;
    // Asked for, and the least size after it; growth is rounded up by at most 4096.
    const std::uint32_t steps[][2] = {{100, 5120}, {6000, 6000},   {1, 6000},   {100000, 100000},
                                      {0, 32767},  {40000, 40000}, {5119, 5120}};
    for (const auto& [asked, least] : steps) {
        const std::uint32_t size = client.GetScratchBuffer(asked).GetBufferSize();
        EXPECT_TRUE(least <= size && size <= least + 4096) << asked << " gives " << size;
    }
}

TEST(DispatchQuilRequests, BeginsWithoutTheTextOfABrokenOffOne) {
    Client client;
    client.expectMessages({wire::body("hello"), wire::end()});
    client.refused = "4:hello";
    EXPECT_FALSE(client.dispatch());
    EXPECT_TRUE(client.dispatch());
    EXPECT_EQ(client.seen, (Texts{"4:hello", "7:"}));
}

}  // namespace
