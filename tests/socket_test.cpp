// Socket against real peers: pairs of sockets, a listener that is full.
#include "net/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/AddressTurns.h"
#include "protocol/SocCGIQuilClient.h"
#include "support/TempDir.h"

static std::atomic<int> lastWait{0};  // milliseconds

// Every wait of this program.
extern "C" int poll(pollfd* entries, nfds_t count, int milliseconds) {
    lastWait = milliseconds;
    const timespec limit = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    return ppoll(entries, count, milliseconds < 0 ? nullptr : &limit, nullptr);
}

// The addresses of every name; the order is this list's.
static std::vector<std::string> addressesOfNames;

extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** found) {
    *found = nullptr;
    for (auto text = addressesOfNames.rbegin(); text != addressesOfNames.rend(); ++text) {
        auto* address = new sockaddr_in6{};
        auto* generic = reinterpret_cast<sockaddr*>(address);
        const bool isSix = inet_pton(AF_INET6, text->c_str(), &address->sin6_addr) == 1;
        generic->sa_family = isSix ? AF_INET6 : AF_INET;
        if (!isSix) inet_pton(AF_INET, text->c_str(), &reinterpret_cast<sockaddr_in*>(address)->sin_addr);
        *found =
            new addrinfo{0, generic->sa_family, SOCK_STREAM, 0, sizeof *address, generic, nullptr, *found};
    }
    return *found != nullptr ? 0 : EAI_NONAME;
}

extern "C" void freeaddrinfo(addrinfo* list) noexcept {
    while (list != nullptr) {
        delete reinterpret_cast<sockaddr_in6*>(list->ai_addr);
        delete std::exchange(list, list->ai_next);
    }
}

namespace {

constexpr std::uint32_t kBrief = 30;  // milliseconds, for waits that have to run out

// Makes a TCP listener with a queue of this length; its port.
std::uint16_t listenAt(Socket& listener, int queue) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_TRUE(listener.CreateSocket(AF_INET, "127.0.0.1", nullptr));
    EXPECT_EQ(listen(listener.GetDescriptor(), queue), 0);
    getsockname(listener.GetDescriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Two sockets that are connected.
struct Connection {
    Connection() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const sockaddr address{AF_UNIX, {}};
        EXPECT_TRUE(socket.CreateSocket(ends[0], &address, sizeof address));
        EXPECT_TRUE(peer.CreateSocket(ends[1], &address, sizeof address));
    }
    Socket socket, peer;
};

TEST(Socket, ClosesWhatItMadeOrAdoptedAndACopyNothing) {
    Connection connection;
    Socket made;
    EXPECT_TRUE(made.CreateSocket(AF_INET, nullptr, nullptr));
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    getsockopt(made.GetDescriptor(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    EXPECT_EQ(noDelay, 1);
    for (Socket* socket : {&made, &connection.socket}) {
        const int descriptor = socket->GetDescriptor();
        EXPECT_FALSE(socket->CreateSocket(AF_INET, nullptr, nullptr)) << "it has one";
        Socket(*socket).DestroySocket();
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        socket->DestroySocket();
        EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    }
}

TEST(Socket, ConnectWaitsAtMostItsTime) {
    Socket full, waiting[3];  // more than the queue of the listener takes
    SocCGIQuilClient client;
    const std::uint16_t port = listenAt(full, 1);
    EXPECT_TRUE(client.connectToServer("127.0.0.1", std::to_string(port).c_str()));
    EXPECT_EQ(lastWait, 1000) << "what a gateway gives each server";
    for (Socket& socket : waiting) {
        ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
        socket.Connect("127.0.0.1", port, kBrief);
    }
    EXPECT_EQ(waiting[2].GetLastError(), ETIMEDOUT);
    EXPECT_TRUE(Socket::IsSameConnection(AF_INET, &waiting[0], &full));
    EXPECT_FALSE(Socket::IsSameConnection(AF_INET, &waiting[0], &waiting[2]));
    for (const char* wrong : {"localhost", "255.255.255.255", "", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(waiting[2].Connect(wrong, 80, kBrief));
}

TEST(Socket, ConnectsOverIPv6AndToAPath) {
    const support::TempDir folder;
    const std::string path = folder / "socket";
    const std::pair<int, std::string> addresses[] = {{AF_INET6, "::1"}, {AF_UNIX, path}};
    for (const auto& [family, address] : addresses) {
        Socket listener, socket;
        if (!listener.CreateSocket(family, address.c_str(), nullptr)) {
            EXPECT_EQ(listener.GetLastError(), EADDRNOTAVAIL) << "no IPv6 here";
            continue;
        }
        ASSERT_EQ(listen(listener.GetDescriptor(), 0), 0);
        sockaddr_in6 own{};
        socklen_t length = sizeof own;
        getsockname(listener.GetDescriptor(), reinterpret_cast<sockaddr*>(&own), &length);
        ASSERT_TRUE(socket.CreateSocket(family, nullptr, nullptr));
        EXPECT_FALSE(socket.Connect("127.0.0.1", 0, kBrief));
        EXPECT_TRUE(socket.Connect(address.c_str(), family == AF_UNIX ? 0 : ntohs(own.sin6_port), kBrief));
        EXPECT_TRUE(socket.IsActive());
        EXPECT_EQ(socket.getAddressAsIP(), nullptr);
        EXPECT_FALSE(Socket().CreateSocket(family, std::string(108, '/').c_str(), nullptr));
    }
    Socket lost;
    ASSERT_TRUE(lost.CreateSocket(AF_UNIX, nullptr, nullptr));
    EXPECT_FALSE(lost.Connect((path + "0").c_str(), 0, kBrief));
    EXPECT_EQ(lost.GetLastError(), ENOENT);
}

TEST(Socket, WaitsForRoomInTheQueueOfAPath) {
    const support::TempDir folder;
    const std::string path = folder / "socket";
    Socket listener, first, second;
    ASSERT_TRUE(listener.CreateSocket(AF_UNIX, path.c_str(), nullptr));
    ASSERT_EQ(listen(listener.GetDescriptor(), 0), 0);
    for (Socket* socket : {&first, &second})
        ASSERT_TRUE(socket->CreateSocket(AF_UNIX, nullptr, nullptr));
    EXPECT_TRUE(first.Connect(path.c_str(), 0, kBrief));
    EXPECT_FALSE(second.Connect(path.c_str(), 0, kBrief));
    EXPECT_EQ(second.GetLastError(), ETIMEDOUT);
    std::thread taker([&] {
        usleep(kBrief * 1000);
        close(accept(listener.GetDescriptor(), nullptr, nullptr));
    });
    EXPECT_TRUE(second.Connect(path.c_str(), 0, 20000));
    EXPECT_TRUE(second.IsActive());
    EXPECT_NE(fcntl(second.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
    taker.join();
}

TEST(AddressTurns, EachAddressHasItsShareOfTheTime) {
    CText list, address;
    std::uint32_t milliseconds = 0;
    addressesOfNames = {"2001:db8::5", "192.0.2.1", "2001:db8::6"};
    AddressTurns turns(ListAddresses("name", true, list), 900);
    for (std::size_t i = 0; i < addressesOfNames.size(); ++i) {
        ASSERT_TRUE(turns.next(address, milliseconds));
        EXPECT_EQ(address.GetTextEx(), addressesOfNames[i]);
        EXPECT_LE(milliseconds, 900 / (addressesOfNames.size() - i));
        if (i == 0) {
            EXPECT_EQ(milliseconds, 300u);
        }
    }
    EXPECT_FALSE(turns.next(address, milliseconds));
    for (const char* itself : {"192.0.2.1", "::1", "/run/app.sock"}) {
        AddressTurns only(ListAddresses(itself, true, list), 900);
        ASSERT_TRUE(only.next(address, milliseconds));
        EXPECT_EQ(address.GetTextEx(), std::string(itself));
        EXPECT_EQ(milliseconds, 900u);
    }
    for (const char* nobody : {"", static_cast<const char*>(nullptr)})
        EXPECT_TRUE(ListAddresses(nobody, true, list).IsEmpty());
}

TEST(SocCGIQuilClient, TriesAllAddressesOfANameWhereTheSectionSaysSo) {
    Socket listener;
    const std::uint16_t port = listenAt(listener, 1);
    addressesOfNames = {"::1", "127.0.0.2", "127.0.0.1"};  // nobody listens on the first two
    const std::string server = "no-such-name.invalid," + std::to_string(port);
    for (const bool all : {false, true}) {
        Stanza section("shop");
        section.addValue("VELARTO_SERVER", server.c_str());
        section.addValue("ALLADDRESSES", all ? "yes" : "no");
        SocCGIQuilClient client;
        TQuilRequest request;
        EXPECT_EQ(client.ConnectToQuilServer(&request, &section, "shop", true), all);
        EXPECT_EQ(client.serverIP(), std::string(all ? "127.0.0.1" : ""));
    }
    addressesOfNames.clear();
}

TEST(Socket, TransfersWaitAtMostTheTimeOutWhateverSignalsCome) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    Connection connection;
    connection.socket.setNonBlocking(false);  // the time-out holds even so
    EXPECT_EQ(connection.socket.SetReadWriteTimeout(kBrief), 300000u);
    std::string bytes(8 << 20, 'q');
    EXPECT_EQ(connection.peer.SendNum("abc", 3), 3);
    ualarm(5000, 5000);
    EXPECT_EQ(connection.socket.ReceiveNum(bytes.data(), 10), -1) << "after some bytes";
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    EXPECT_EQ(connection.socket.SendNum(bytes.data(), 8 << 20), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    ualarm(0, 0);
}

TEST(Socket, TransfersGatherPartsAndStopAtAClose) {
    Connection connection;
    const std::string large = std::string(8 << 20, 'q') + "end";
    const int size = static_cast<int>(large.size());
    std::string received(large.size() + 1, '\0');
    std::thread sender([&] {
        EXPECT_EQ(connection.peer.SendNum(large.data(), size), size);
        connection.peer.DestroySocket();
    });
    EXPECT_EQ(connection.socket.ReceiveNum(received.data(), size + 1), size);
    sender.join();
    EXPECT_TRUE(received == large + '\0');
    EXPECT_EQ(connection.socket.SendNum("x", 1), -1) << "and no signal";
}

TEST(Socket, TextsEndWithTheirHeaderTheirDelimiterOrTheirRoom) {
    Connection connection;
    connection.peer.SendNum("a: b\r\n\r\none\nthree\n", 18);
    CText header;
    EXPECT_EQ(connection.socket.ReceiveHTTP(header, 2, 0), 8);
    EXPECT_STREQ(header.GetTextEx(), "a: b\r\n\r\n");
    CTextLocal<5> line;
    EXPECT_EQ(connection.socket.Receive(line, '\n'), 4);
    EXPECT_EQ(connection.socket.Receive(line, '\n'), -1);
    EXPECT_STREQ(line.GetTextEx(), "thre");
}

}  // namespace
