// The protocol client over TCP, against a scripted server on the loopback interface.
#include <gtest/gtest.h>

#include <string>

#include "protocol/SocCGIQuilClient.h"
#include "support/ScriptedPeer.h"

namespace {

using support::Connection;
using support::ScriptedPeer;

constexpr std::uint32_t kDefaultTimeout = 300000;

TEST(SocCGIQuilClient, RefusesWhatLeadsNowhereAndForgetsTheTimeout) {
    ScriptedPeer peer([](Connection& connection) { connection.stall(); });
    const support::DeadPort dead;
    const std::string port = std::to_string(peer.port()), deadPort = std::to_string(dead.port());
    const struct {
        const char* host;
        const char* port;
        bool attempted;  // the time-out is the default again after an attempt that failed
    } cases[] = {
        {"127.0.0.1", deadPort.c_str(), true},
        {"127.0.0.1", nullptr, true},
        {nullptr, port.c_str(), false},
        {"0127.0000.0000.01", port.c_str(), false},  // more characters than an address may have
    };
    for (const auto& c : cases) {
        SocCGIQuilClient client;
        EXPECT_EQ(client.SetReadWriteTimeout(50), kDefaultTimeout);
        EXPECT_FALSE(client.connectToServer(c.host, c.port));
        EXPECT_EQ(client.SetReadWriteTimeout(50), c.attempted ? kDefaultTimeout : 50);
        EXPECT_TRUE(client.connectToServer("localhost", port.c_str()));  // it can still try another
        EXPECT_STREQ(client.serverIP(), "127.0.0.1");
        EXPECT_EQ(client.serverPort(), port);
        char byte;
        EXPECT_EQ(client.readFromTransport(&byte, 1), NetBase::kTransportError);  // after 50 ms
        EXPECT_EQ(client.SetReadWriteTimeout(0), 50u);
        EXPECT_EQ(client.SetReadWriteTimeout(7), kDefaultTimeout);
    }
}

TEST(SocCGIQuilClient, TellsACloseFromAnErrorAndSharesNothingWithACopy) {
    for (const bool reset : {false, true}) {
        ScriptedPeer peer([reset](Connection& connection) {
            connection.receive(1);
            if (reset) connection.reset();
            connection.close();
        });
        SocCGIQuilClient client;
        char byte = 0;
        ASSERT_TRUE(client.connectToServer(("s001,127.0.0.1," + std::to_string(peer.port())).c_str()));
        SocCGIQuilClient copy(client);
        EXPECT_EQ(copy.readFromTransport(&byte, 1), NetBase::kTransportError);
        EXPECT_EQ(copy.writeToTransport(&byte, 1), NetBase::kTransportError);
        client = copy;
        EXPECT_EQ(client.writeToTransport(&byte, 1), 1u);
        EXPECT_EQ(client.readFromTransport(&byte, 1), reset ? NetBase::kTransportError : 0);
    }
}

}  // namespace
