// The protocol client over TCP, against a scripted server on the loopback interface.
#include <gtest/gtest.h>

#include <string>

#include "protocol/SocCGIQuilClient.h"
#include "support/ScriptedPeer.h"

namespace {

using support::Connection;
using support::DeadPort;
using support::ScriptedPeer;
namespace wire = support::wire;

constexpr std::uint32_t kDefaultTimeout = 300000;

std::string portOf(const ScriptedPeer& peer) {
    return std::to_string(peer.port());
}

TEST(SocCGIQuilClient, RecordsTheServerAsConfigured) {
    ScriptedPeer peer([](Connection& connection) { connection.close(); });
    const struct {
        std::string host, port, ip;
    } cases[] = {
        {"127.0.0.1", portOf(peer), "127.0.0.1"},
        {"127.0.0.1", " 000" + portOf(peer), "127.0.0.1"},
        {"127.1", std::to_string(peer.port() + 65536), "127.1"},
        {"localhost", portOf(peer) + "x", "127.0.0.1"},
    };
    for (const auto& c : cases) {
        SocCGIQuilClient client;
        EXPECT_TRUE(client.connectToServer(c.host.c_str(), c.port.c_str())) << c.host << " " << c.port;
        EXPECT_EQ(client.serverIP(), c.ip);
        EXPECT_EQ(client.serverPort(), c.port);
    }
}

TEST(SocCGIQuilClient, RefusesWhatLeadsNowhereAndForgetsTheTimeout) {
    ScriptedPeer peer([](Connection& connection) { connection.close(); });
    const DeadPort dead;
    const std::string port = portOf(peer), deadPort = std::to_string(dead.port());
    const struct {
        const char* host;
        const char* port;
        bool attempted;  // the time-out is the default again after an attempt that failed
    } cases[] = {
        {"127.0.0.1", deadPort.c_str(), true},
        {"127.0.0.1", "0", true},
        {"127.0.0.1", "", true},
        {"127.0.0.1", nullptr, true},
        {"127.0.0.1", "x", true},
        {"", port.c_str(), false},
        {nullptr, port.c_str(), false},
        {"0127.0000.0000.01", port.c_str(), false},  // more characters than an address may have
    };
    for (const auto& c : cases) {
        SocCGIQuilClient client;
        EXPECT_EQ(client.SetReadWriteTimeout(1234), kDefaultTimeout);
        EXPECT_FALSE(client.connectToServer(c.host, c.port));
        EXPECT_STREQ(client.serverIP(), "");
        EXPECT_STREQ(client.serverPort(), "");
        EXPECT_EQ(client.SetReadWriteTimeout(0), c.attempted ? kDefaultTimeout : 1234);
        EXPECT_TRUE(client.connectToServer("127.0.0.1", port.c_str()));  // it can still try another
    }
}

TEST(SocCGIQuilClient, KeepsTheTimeoutOfAConnectionMadeAtOnce) {
    ScriptedPeer peer([](Connection& connection) { connection.stall(); });
    SocCGIQuilClient client;
    client.SetReadWriteTimeout(50);
    ASSERT_TRUE(client.connectToServer("127.0.0.1", portOf(peer).c_str()));
    char byte;
    EXPECT_EQ(client.readFromTransport(&byte, 1), NetBase::kTransportError);
    EXPECT_EQ(client.SetReadWriteTimeout(0), 50u);
    EXPECT_EQ(client.SetReadWriteTimeout(7), kDefaultTimeout);
}

TEST(SocCGIQuilClient, TellsACloseFromAnError) {
    for (const bool reset : {false, true}) {
        ScriptedPeer peer([reset](Connection& connection) {
            connection.receive(1);
            if (reset) connection.reset();
            connection.close();
        });
        SocCGIQuilClient client;
        char byte = 0;
        EXPECT_EQ(client.readFromTransport(&byte, 1), NetBase::kTransportError);
        EXPECT_EQ(client.writeToTransport(&byte, 1), NetBase::kTransportError);
        ASSERT_TRUE(client.connectToServer("127.0.0.1", portOf(peer).c_str()));
        EXPECT_EQ(client.writeToTransport(&byte, 1), 1u);
        EXPECT_EQ(client.readFromTransport(&byte, 1), reset ? NetBase::kTransportError : 0);
    }
}

TEST(SocCGIQuilClient, CountsInNetworkByteOrder) {
    const SocCGIQuilClient client;
    const std::uint32_t number = client.makeNetworkNumber(0x01020304);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&number), 4), "\1\2\3\4");
    EXPECT_EQ(client.makeHostNumber(number), 0x01020304u);
}

TEST(SocCGIQuilClient, SendsALargeRequestThatACopyHasNoPartIn) {
    const std::string post(3000000, 'p');
    ScriptedPeer peer(support::answering({wire::end()}));
    {
        SocCGIQuilClient client;
        ASSERT_TRUE(client.connectToServer(("s001,127.0.0.1," + portOf(peer)).c_str()));
        {
            SocCGIQuilClient copy(client);
            EXPECT_STREQ(copy.serverIP(), "");
            EXPECT_EQ(copy.writeToTransport("x", 1), NetBase::kTransportError);
            client = copy;
        }
        TQuilRequest request;
        request.SetPostArgs(reinterpret_cast<const unsigned char*>(post.data()), 3000000);
        EXPECT_TRUE(client.SendQuilRequest(&request));
        EXPECT_TRUE(client.DispatchQuilRequests(nullptr, nullptr, false));
    }
    ASSERT_EQ(peer.visits().size(), 1u);
    EXPECT_EQ(peer.visits()[0].request.post, post);
}

}  // namespace
