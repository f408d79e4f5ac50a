// The conversation with an application server: where a host's callback ends it, and local files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "protocol/QuilClient.h"
#include "support/Concurrent.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"
#include "support/Wire.h"

namespace {

using namespace std::string_literals;
namespace wire = support::wire;

struct Client : support::FakeTransport<QuilClient> {
    bool connectToServer(const char*, const char*) override { return false; }

    // The server waits for the answer to each message. The callback refuses bodies.
    bool dispatch(const std::vector<std::string>& messages) {
        for (const std::string& message : messages)
            cuts.insert((input += message).size());
        const auto see = [](QuilClient&, TQUILReqType type, const char*, std::uint32_t, void*) {
            return type != QUIL_BODY_DATA;
        };
        return DispatchQuilRequests(see, nullptr, false);
    }
};

TEST(Dispatch, EndsAtTheMessageThatTheCallbackRefuses) {
    Client client;
    EXPECT_FALSE(client.dispatch({wire::header("head"), wire::body("refused"), wire::body("")}));
    EXPECT_EQ(client.written, wire::acknowledgement(6) + wire::acknowledgement(4));
}

TEST(Dispatch, SendsRegularFilesOnly) {
    const support::TempDir folder;
    support::writeFile(folder / "page", "a\0b"s);
    support::writeFile(folder / "back\\slash", "b");
    support::writeFile(folder / "empty", "");
    support::writeFile(folder / "huge", "");
    std::filesystem::resize_file(folder / "huge", (std::uintmax_t{4} << 30) + 10);  // a hole: takes no disk
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const support::Runner writer([&] { std::ofstream(pipe) << "kept"; });
    EXPECT_TRUE(writer.blocks());
    const std::string refused = wire::fileRefused();
    const std::pair<std::string, std::string> cases[] = {
        {folder / "page", wire::fileReply("a\0b"s)},
        {folder / "back\\slash", wire::fileReply("b")},  // nothing is converted unless it is configured
        {folder / "empty", refused},
        {folder / "huge", refused},
        {pipe, refused},
        {folder / "page\0x"s, refused},
    };
    for (const auto& [path, answer] : cases) {
        Client client;
        EXPECT_TRUE(client.dispatch({wire::fileRequest(path), wire::end()}));
        EXPECT_EQ(client.written, answer) << path;
    }
    const bool waits = writer.blocks();
    EXPECT_TRUE(waits) << "to open the pipe is to take his data";
    if (waits) support::readFile(pipe);
}

}  // namespace
