// The protocol client over TCP, against a scripted server on the loopback interface.
#include <gtest/gtest.h>

#include <string>

#include "protocol/SocCGIQuilClient.h"
#include "support/ScriptedPeer.h"

namespace {

TEST(SocCGIQuilClient, TriesAnotherServerAndTellsACloseFromAnError) {
    const support::DeadPort dead;
    for (const bool resets : {false, true}) {
        support::ScriptedPeer peer([resets](support::Connection& connection) {
            connection.receive(1);
            resets ? connection.reset() : connection.close();
        });
        const std::string port = std::to_string(peer.port()), deadPort = std::to_string(dead.port());
        SocCGIQuilClient client;
        EXPECT_FALSE(client.connectToServer("127.0.0.1", deadPort.c_str()));
        EXPECT_FALSE(client.connectToServer("127.0.0.1", nullptr));
        EXPECT_FALSE(client.connectToServer(nullptr, port.c_str()));
        EXPECT_FALSE(client.connectToServer("0177.0000.0000.01", port.c_str()));  // too long to be recorded
        EXPECT_TRUE(client.connectToServer(("s001,localhost," + port).c_str()));
        char byte = 0;
        EXPECT_EQ(client.writeToTransport(&byte, 1), 1u);
        EXPECT_EQ(client.readFromTransport(&byte, 1), resets ? NetBase::kTransportError : 0);
    }
}

}  // namespace
