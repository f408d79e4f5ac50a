// Socket against real peers: loopback connections and socket pairs.
#include "net/Socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

static int lookups = 0;

// The resolver of this program: what it answers depends on no host file and no network.
extern "C" int gethostbyname_r(const char* name, hostent* entry, char*, std::size_t, hostent** found, int*) {
    ++lookups;
    static char bytes[][4] = {{10, 0, 0, 1}, {10, 0, 0, 2}};
    static char* addresses[] = {bytes[0], bytes[1], nullptr};
    *entry = {nullptr, nullptr, AF_INET, 4, addresses};
    *found = std::strcmp(name, "two.test") == 0 ? entry : nullptr;
    return 0;
}

namespace {

constexpr std::uint32_t kBrief = 30;  // milliseconds, for waits that have to run out
const sockaddr kAddress{AF_INET, {}};

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) >= 0;
}

struct Listener : Socket {
    explicit Listener(int backlog = 16) {
        EXPECT_TRUE(CreateSocket(AF_INET, "127.0.0.1", nullptr));
        EXPECT_EQ(listen(GetDescriptor(), backlog), 0);
    }
    std::uint16_t port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(GetDescriptor(), reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
};

// A connected socket and its peer.
struct Connection {
    Connection() {
        const Listener listener;
        EXPECT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
        EXPECT_TRUE(socket.Connect("127.0.0.1", listener.port(), 1000) && socket.IsActive());
        EXPECT_TRUE(peer.CreateSocket(accept(listener.GetDescriptor(), nullptr, nullptr), &kAddress, 0));
        socket.SetReadWriteTimeout(kBrief);
    }
    void give(const std::string& bytes) {
        const int size = static_cast<int>(bytes.size());
        ASSERT_EQ(peer.SendNum(bytes.data(), size), size);
    }
    Socket socket, peer;
};

std::string contentOf(const CText& text) {
    return {text.GetTextEx(), text.Length()};
}

TEST(Socket, CreatedAndAdoptedSocketsHaveTheirOptionsUntilTheyAreDestroyed) {
    Connection connection;
    for (Socket* socket : {&connection.socket, &connection.peer}) {
        const int descriptor = socket->GetDescriptor();
        int noDelay = 0;
        socklen_t length = sizeof noDelay;
        getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
        EXPECT_EQ(noDelay, 1);
        EXPECT_TRUE((fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0);
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_FALSE(socket->CreateSocket(AF_INET, nullptr, nullptr));
        EXPECT_EQ(socket->GetLastError(), EALREADY);
        socket->SetReadWriteTimeout(7);
        EXPECT_EQ(socket->SetReadWriteTimeout(0), 7u);
        EXPECT_EQ(socket->SetReadWriteTimeout(0), 300000u);
        EXPECT_TRUE(socket->DestroySocket());
        EXPECT_FALSE(isOpen(descriptor));
    }
}

TEST(Socket, FailedCreationClosesItsOwnDescriptorOnly) {
    const Listener listener;
    const int next = dup(2);
    close(next);
    Socket socket;
    EXPECT_FALSE(socket.CreateSocket(AF_INET, "127.0.0.1", std::to_string(listener.port()).c_str()));
    EXPECT_EQ(socket.GetLastError(), EADDRINUSE);
    EXPECT_FALSE(isOpen(next));
    EXPECT_FALSE(socket.CreateSocket(dup(2), static_cast<const sockaddr*>(nullptr), 0));
    EXPECT_EQ(socket.GetLastError(), EINVAL);
    EXPECT_TRUE(isOpen(next));
    close(next);
    EXPECT_FALSE(socket.CreateSocket(next, &kAddress, 0));
    EXPECT_EQ(socket.GetLastError(), EBADF);
    EXPECT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
}

TEST(Socket, ACopyIsAViewThatNeverCloses) {
    Connection first, second;
    const int descriptor = first.socket.GetDescriptor();
    {
        Socket copy(first.socket), assigned;
        assigned = copy;
        EXPECT_TRUE(assigned.IsActive() && assigned.DestroySocket());
        first.socket = copy;
    }
    EXPECT_TRUE(first.socket.IsActive());
    first.socket = second.socket;
    EXPECT_FALSE(isOpen(descriptor));
    first.socket.DestroySocket();
    EXPECT_TRUE(second.socket.IsActive());
}

TEST(Socket, ConnectFailsWithItsReason) {
    const Listener full(0);
    Socket waiting[3];  // more than the queue of the listener takes
    for (Socket& socket : waiting) {
        ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
        socket.Connect("127.0.0.1", full.port(), kBrief);
    }
    EXPECT_EQ(waiting[2].GetLastError(), ETIMEDOUT);
    Socket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
    for (const char* address : {"localhost", "255.255.255.255", "", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(socket.Connect(address, 80, 1000));
        EXPECT_EQ(socket.GetLastError(), EINVAL);
    }
    EXPECT_FALSE(socket.Connect("127.0.0.1", 0, 1000));
    const std::uint16_t unused = Listener().port();
    socket.Connect("127.0.0.1", unused, 1000);
    EXPECT_FALSE(socket.IsActive());
}

TEST(Socket, TransfersWaitAtMostTheTimeoutWhateverSignalsCome) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    Connection connection;
    connection.socket.setNonBlocking(false);  // the time-out holds even so
    char bytes[10];
    connection.give("abc");
    ualarm(5000, 5000);
    EXPECT_EQ(connection.socket.ReceiveNum(bytes, 10), -1) << "after some bytes";
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    const std::string large(8 << 20, 'q');
    EXPECT_EQ(connection.socket.SendNum(large.data(), static_cast<int>(large.size())), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    ualarm(0, 0);
    connection.socket.DestroySocket();
    EXPECT_EQ(connection.socket.Receive(bytes, 1, 0), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ENOTSOCK);
}

TEST(Socket, NumTransfersGatherPartsAndStopAtAnEarlyClose) {
    Connection connection;
    connection.socket.SetReadWriteTimeout(5000);
    std::string large(8 << 20, 'q'), received(large.size() + 1, '\0');
    large.back() = 'z';
    const int size = static_cast<int>(large.size());
    std::thread sender([&] {
        EXPECT_EQ(connection.peer.SendNum(large.data(), size), size);
        connection.peer.DestroySocket();
    });
    EXPECT_EQ(connection.socket.ReceiveNum(received.data(), size + 1), size);
    sender.join();
    EXPECT_TRUE(received == large + '\0');
    EXPECT_EQ(connection.socket.ReceiveNum(received.data(), 1), 0);
}

TEST(Socket, ReceiveStopsAfterTheDelimiterOrAtItsLimit) {
    Connection connection;
    CText text("an older and longer content");
    CTextLocal<31> shortText;
    connection.give("one\n" + std::string(30 + 65540, 'n'));
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 4);
    EXPECT_EQ(contentOf(text), "one\n");
    EXPECT_EQ(connection.socket.Receive(shortText, '\n'), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ENOMEM);
    EXPECT_EQ(contentOf(shortText), std::string(30, 'n'));
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 65534);
}

TEST(Socket, ReceiveHTTPEndsAtTheEmptyLineOrItsLimit) {
    const std::string large(70000, 'n');
    const struct {
        std::string input;
        int mode;
        std::uint32_t maxLength;
        int length;
    } cases[] = {
        {"a: b\r\nc\r\n\r\nd", 2, 0, 11},
        {"a\n\nb", 2, 0, 3},
        {"a\n\r\nb", 2, 0, 4},
        {"a\r\rb", 2, 0, 3},
        {"a\r\n\r\rb", 2, 0, 5},
        {"a\r\nb\n\rc\n\nd", 2, 0, 9},
        {large, 2, 511, 65534},
        {large, 1, 600, 1024},
        {large, 0, 0xFFFFFFFF, 70000},
    };
    for (const auto& c : cases) {
        Connection connection;
        connection.give(c.input);
        connection.peer.DestroySocket();
        CText text;
        EXPECT_EQ(connection.socket.ReceiveHTTP(text, c.mode, c.maxLength), c.length);
        EXPECT_EQ(contentOf(text), c.input.substr(0, static_cast<std::size_t>(c.length)));
    }
}

TEST(Socket, CastToIPTakesDottedTextAsItStandsAndLooksNamesUp) {
    const struct {
        const char* host;
        bool all;
        const char* address;
        int lookups;
    } cases[] = {
        {"127.0.0.1", true, "127.0.0.1", 0}, {"two.test", true, "10.0.0.1:10.0.0.2", 1},
        {"two.test", false, "10.0.0.1", 1},  {"unknown.test", true, nullptr, 1},
        {nullptr, true, nullptr, 0},         {"", true, nullptr, 0},
    };
    for (const auto& c : cases) {
        CText out("old");
        lookups = 0;
        EXPECT_STREQ(Socket::castToIP(c.host, out, c.all), c.address);
        EXPECT_EQ(lookups, c.lookups);
    }
}

}  // namespace
