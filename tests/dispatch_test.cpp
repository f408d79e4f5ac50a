// The conversation with an application server: where a host's callback ends it, and local files.
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

struct Client : support::FakeTransport<QuilClient> {
    Texts seen;           // by the callback, "type:data"
    std::string refused;  // what it answers with false

    bool connectToServer(const char*, const char*) override { return false; }

    // The server waits for the answer to each message.
    bool dispatch(const Texts& messages) {
        for (const std::string& message : messages)
            cuts.insert((input += message).size());
        const DispatchCallback see = [](QuilClient&, TQUILReqType type, const char* data,
                                        std::uint32_t length, void* user) {
            auto* self = static_cast<Client*>(user);
            self->seen.push_back(std::to_string(type) + ":" + std::string(data, length));
            return self->seen.back() != self->refused;
        };
        return DispatchQuilRequests(see, this, false);
    }
};

TEST(Dispatch, AnswersEachMessageInOneWriteAndEndsWhereTheCallbackRefuses) {
    const Texts messages = {wire::header("head"), wire::body("a\0b"s), wire::body(""), wire::end()};
    const Texts answers = {wire::acknowledgement(6), wire::acknowledgement(4), wire::acknowledgement(4)};
    const Texts seen = {"6:head", "4:a\0b"s, "4:", "7:"};
    for (std::size_t i = 0; i < seen.size(); ++i) {
        Client client;
        client.refused = seen[i];
        EXPECT_FALSE(client.dispatch(messages));
        EXPECT_EQ(client.seen, Texts(&seen[0], &seen[i] + 1));
        EXPECT_EQ(client.writes, Texts(&answers[0], &answers[0] + std::min<std::size_t>(i + 1, 3)));
    }
}

TEST(Dispatch, SendsRegularFilesOnly) {
    const support::TempDir folder;
    support::writeFile(folder / "page", "a\0b"s);
    support::writeFile(folder / "empty", "");
    support::writeFile(folder / "huge", "");
    std::filesystem::resize_file(folder / "huge", (std::uintmax_t{4} << 30) + 10);  // a hole: takes no disk
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const std::string refused = wire::fileRefused();
    const std::pair<std::string, std::string> cases[] = {
        {folder / "page", wire::fileReply("a\0b"s)},
        {folder / "empty", refused},
        {folder / "huge", refused},
        {folder / "pipe", refused},
        {folder.path(), refused},
        {"", refused},
        {folder / "page\0x"s, refused},
    };
    for (const auto& [path, answer] : cases) {
        Client client;
        EXPECT_TRUE(client.dispatch({wire::fileRequest(path), wire::end()}));
        EXPECT_EQ(client.written, answer) << path;
    }
}

}  // namespace
