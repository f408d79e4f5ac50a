// What gateways tell each other of servers that they did not reach, and the files that they do not believe.
#include "protocol/ServerState.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "support/TempDir.h"

namespace {

class ServerStateTest : public ::testing::Test {
  protected:
    bool shares() const { return ServerState().open(path_.c_str(), ServerState::kShare); }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "state";
    const ServerEntry server_{"s001,h,1"};
};

TEST_F(ServerStateTest, LetsOneTryAgainWhenTheTimeIsOver) {
    ServerState first, second;
    ASSERT_TRUE(first.open(path_.c_str(), ServerState::kShare));
    ASSERT_TRUE(second.open(path_.c_str(), ServerState::kShare));
    EXPECT_FALSE(second.leavesOut(server_, 60000));
    first.setOut(server_, 60000, ECONNREFUSED);
    EXPECT_TRUE(second.leavesOut(ServerEntry("s009,h,1"), 60000)) << "the same server under another name";
    EXPECT_FALSE(second.leavesOut(ServerEntry("s001,h,2"), 60000));
    ServerState::Absence absence{};
    ASSERT_TRUE(second.getAbsence(server_, absence));
    EXPECT_EQ(absence.reason, ECONNREFUSED);
    second.setIn(server_);
    EXPECT_FALSE(first.leavesOut(server_, 60000));
    first.setOut(server_, 0, ETIMEDOUT);
    EXPECT_FALSE(first.leavesOut(server_, 60000));
    EXPECT_TRUE(second.leavesOut(server_, 60000));
}

TEST_F(ServerStateTest, IsUsedOnlyWhereItCanBeTrusted) {
    EXPECT_TRUE(shares());
    const std::string good = support::readFile(path_);
    const std::pair<const char*, std::string> contents[] = {
        {"short", good.substr(1)}, {"long", good + "x"}, {"mark", "x" + good.substr(1)}};
    for (const auto& [what, content] : contents) {
        support::writeFile(path_, content);
        EXPECT_FALSE(shares()) << what;
        EXPECT_EQ(support::readFile(path_), content) << what;
    }
    const std::pair<const char*, std::function<void()>> places[] = {
        {"link", [this] { std::filesystem::create_symlink("elsewhere", path_); }},
        {"folder", [this] { std::filesystem::create_directory(path_); }},
        {"pipe", [this] { mkfifo(path_.c_str(), 0600); }},
        {"second name",
         [&] {
             support::writeFile(folder_ / "2", good), std::filesystem::create_hard_link(folder_ / "2", path_);
         }},
        {"folder of all",
         [this] { std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777)); }},
    };
    for (const auto& [what, prepare] : places) {
        std::filesystem::remove(path_);
        prepare();
        EXPECT_FALSE(shares()) << what;
    }
    std::filesystem::permissions(folder_.path(), std::filesystem::perms(01777));
    EXPECT_TRUE(shares());
}

TEST_F(ServerStateTest, BeginsAnewAfterAStartOfTheMachine) {
    {
        ServerState state;
        ASSERT_TRUE(state.open(path_.c_str(), ServerState::kShare));
        state.setOut(server_, 60000, ECONNREFUSED);
    }
    support::writeFile(path_, support::readFile(path_).replace(8, 8, "earlier!"));
    ServerState reader, state;
    EXPECT_FALSE(reader.open(path_.c_str(), ServerState::kRead));
    ASSERT_TRUE(state.open(path_.c_str(), ServerState::kShare));
    EXPECT_FALSE(state.leavesOut(server_, 60000));
}

}  // namespace
