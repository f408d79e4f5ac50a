// Socket against real peers: loopback connections and socket pairs.
#include "net/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

static int lookups = 0;

// The resolver of this program: what it answers depends on no host file and no network.
hostent* gethostbyname(const char* name) {
    ++lookups;
    static unsigned char bytes[][4] = {{10, 0, 0, 1}, {10, 0, 0, 2}, {10, 0, 0, 3}};
    static char* addresses[] = {reinterpret_cast<char*>(bytes[0]), reinterpret_cast<char*>(bytes[1]),
                                reinterpret_cast<char*>(bytes[2]), nullptr};
    static hostent entry{};
    entry.h_addrtype = std::strcmp(name, "six.test") == 0 ? AF_INET6 : AF_INET;
    entry.h_length = entry.h_addrtype == AF_INET6 ? 16 : 4;
    entry.h_addr_list = addresses;
    return std::strcmp(name, "unknown.test") == 0 ? nullptr : &entry;
}

namespace {

constexpr std::uint32_t kBrief = 30;  // milliseconds, for waits that have to run out

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    ~Descriptor() { reset(); }
    void reset(int number = -1) {
        if (number_ >= 0) close(number_);
        number_ = number;
    }
    operator int() const { return number_; }

  private:
    int number_;
};

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) >= 0;
}

int lowestFreeDescriptor() {
    return Descriptor(dup(2));
}

int option(const Socket& socket, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(socket.GetDescriptor(), level, name, &value, &length);
    return value;
}

std::uint16_t portOf(int descriptor) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

Descriptor listenOnLoopback(int backlog = 16) {
    Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener, backlog), 0);
    return listener;
}

void give(int peer, const std::string& bytes) {
    ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

std::string contentOf(const CText& text) {
    return {text.GetTextEx(), text.Length()};
}

// A connected socket and the raw descriptor of its peer, over TCP or, with local, a socket pair.
struct Connection {
    explicit Connection(bool local = false) {
        if (local) {
            int ends[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
            const sockaddr address{AF_UNIX, {}};
            EXPECT_TRUE(socket.CreateSocket(ends[0], &address, sizeof address));
            peer.reset(ends[1]);
        } else {
            EXPECT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
            const Descriptor listener = listenOnLoopback();
            EXPECT_TRUE(socket.Connect("127.0.0.1", portOf(listener), 1000));
            peer.reset(accept(listener, nullptr, nullptr));
        }
        socket.SetReadWriteTimeout(kBrief);
    }

    Socket socket;
    Descriptor peer;
};

// ---- creation and ownership ----

TEST(Socket, CreatedSocketHasItsOptionsUntilItIsDestroyed) {
    Socket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
    const int descriptor = socket.GetDescriptor();
    EXPECT_TRUE((fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(option(socket, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_FALSE(socket.CreateSocket(AF_INET, nullptr, nullptr));
    EXPECT_EQ(socket.GetLastError(), EALREADY);
    EXPECT_EQ(socket.GetDescriptor(), descriptor);
    EXPECT_EQ(socket.SetReadWriteTimeout(7), 300000u);
    EXPECT_EQ(socket.SetReadWriteTimeout(0), 7u);
    socket.SetReadWriteTimeout(7);
    EXPECT_FALSE(socket.DestroySocket());  // never connected: the shutdown fails, yet it is closed
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_EQ(socket.SetReadWriteTimeout(0), 300000u);
    EXPECT_TRUE(socket.DestroySocket());
}

TEST(Socket, AdoptedSocketHasItsOptions) {
    const Descriptor listener = listenOnLoopback();
    Socket client;
    ASSERT_TRUE(client.CreateSocket(AF_INET, "127.0.0.1", ""));
    ASSERT_TRUE(client.Connect("127.0.0.1", portOf(listener), 1000));
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const int accepted = accept(listener, reinterpret_cast<sockaddr*>(&from), &length);
    Socket server(accepted, reinterpret_cast<sockaddr*>(&from), length);
    ASSERT_EQ(server.GetDescriptor(), accepted);
    EXPECT_TRUE((fcntl(accepted, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_EQ(fcntl(accepted, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(option(server, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_STREQ(server.getAddressAsIP(), "127.0.0.1");
    EXPECT_TRUE(Socket::IsSameConnection(AF_INET, &client, &server));
    EXPECT_FALSE(Socket::IsSameConnection(AF_INET, &client, &client));
    EXPECT_FALSE(Socket::IsSameConnection(AF_INET6, &client, &server));
}

TEST(Socket, PortIsTakenAtOnceWhenAskedForAndByConnectOrListenOtherwise) {
    Socket bound;
    ASSERT_TRUE(bound.CreateSocket(AF_INET, "127.0.0.1", "0"));
    EXPECT_NE(portOf(bound.GetDescriptor()), 0);
    EXPECT_STREQ(bound.getAddressAsIP(), "127.0.0.1");
    Socket server;
    ASSERT_TRUE(server.CreateSocket(AF_INET, nullptr, nullptr));
    ASSERT_EQ(listen(server.GetDescriptor(), 1), 0);
    EXPECT_NE(portOf(server.GetDescriptor()), 0);
    Socket client;
    ASSERT_TRUE(client.CreateSocket(AF_INET, nullptr, ""));
    ASSERT_TRUE(client.Connect("127.0.0.1", portOf(server.GetDescriptor()), 1000));
    EXPECT_TRUE(client.IsActive());
    EXPECT_NE(portOf(client.GetDescriptor()), 0);
}

TEST(Socket, FailedCreationClosesItsDescriptorAndKeepsTheReason) {
    const Descriptor listener = listenOnLoopback();
    const int free = lowestFreeDescriptor();
    Socket socket;
    EXPECT_FALSE(socket.CreateSocket(AF_INET, "127.0.0.1", std::to_string(portOf(listener)).c_str()));
    EXPECT_EQ(socket.GetLastError(), EADDRINUSE);
    EXPECT_FALSE(socket.CreateSocket(AF_INET6, nullptr, nullptr));  // does not fit an IPv4 address
    EXPECT_EQ(socket.GetLastError(), EINVAL);
    EXPECT_EQ(socket.GetDescriptor(), -1);
    EXPECT_EQ(lowestFreeDescriptor(), free);
    EXPECT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
}

TEST(Socket, FailedAdoptionLeavesTheDescriptorToTheCaller) {
    Descriptor descriptor(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr address{AF_INET, {}};
    Socket socket(descriptor, nullptr, 0);
    EXPECT_EQ(socket.GetLastError(), EINVAL);
    EXPECT_EQ(socket.GetDescriptor(), -1);
    EXPECT_TRUE(isOpen(descriptor));
    const int closed = descriptor;
    descriptor.reset();
    EXPECT_FALSE(socket.CreateSocket(closed, &address, 0));
    EXPECT_EQ(socket.GetLastError(), EBADF);
}

TEST(Socket, LocalSocketsGetNamesOfTheirOwn) {
    Socket first;
    Socket second;
    EXPECT_TRUE(first.CreateSocket(AF_UNIX, nullptr, nullptr));
    EXPECT_TRUE(second.CreateSocket(AF_UNIX, nullptr, nullptr));
    ASSERT_EQ(listen(second.GetDescriptor(), 1), 0);
    sockaddr_un name{};
    socklen_t length = sizeof name;
    ASSERT_EQ(getsockname(second.GetDescriptor(), reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_TRUE(first.Connect(reinterpret_cast<sockaddr*>(&name), length, 1000));
    EXPECT_TRUE(Socket::IsSameConnection(AF_UNIX, &first, &second));
}

TEST(Socket, ACopyIsAViewThatNeverCloses) {
    Connection connection;
    const int descriptor = connection.socket.GetDescriptor();
    {
        Socket copy(connection.socket);
        Socket assigned;
        assigned = copy;
        EXPECT_EQ(assigned.Send("ab", 2, 0), 2);
        EXPECT_TRUE(assigned.DestroySocket());
    }
    char received[2];
    EXPECT_EQ(recv(connection.peer, received, 2, 0), 2);
    EXPECT_TRUE(connection.socket.IsActive());
    EXPECT_TRUE(connection.socket.DestroySocket());
    EXPECT_FALSE(isOpen(descriptor));
}

TEST(Socket, AssignmentClosesTheOwnDescriptorUnlessItIsTheOneAssigned) {
    Connection first;
    Connection second;
    const int descriptor = first.socket.GetDescriptor();
    const Socket view(first.socket);
    first.socket = view;
    EXPECT_TRUE(first.socket.IsActive());
    first.socket = second.socket;
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_EQ(first.socket.GetDescriptor(), second.socket.GetDescriptor());
    first.socket.DestroySocket();
    EXPECT_TRUE(second.socket.IsActive());
}

TEST(Socket, AddressBlocksHoldWhatIsAskedAndAnAddressOfTheirFamily) {
    sockaddr_storage source;
    std::memset(&source, 'x', sizeof source);
    source.ss_family = AF_UNIX;
    for (const std::uint32_t size : {0u, 2u, 17u, 110u, 128u}) {
        sockaddr* block = Socket().AllocSocketAddress(reinterpret_cast<sockaddr*>(&source), size);
        const std::uint32_t copied = size == 0 ? 16 : size;
        const std::string expected = std::string("\1\0", 2) + std::string(copied - 2, 'x');
        const std::string rest(copied < 110 ? 110 - copied : 0, '\0');
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block), copied + rest.size()), expected + rest) << size;
        Socket().FreeSocketAddress(block);
    }
}

TEST(Socket, DescriptorZeroIsADescriptor) {
    const Descriptor saved(dup(0));
    close(0);
    {
        Connection connection;
        EXPECT_EQ(connection.socket.GetDescriptor(), 0);
        give(connection.peer, "x");
        char byte = 0;
        EXPECT_EQ(connection.socket.Receive(&byte, 1, 0), 1);
    }
    EXPECT_FALSE(isOpen(0));
    if (saved >= 0) dup2(saved, 0);
}

TEST(Socket, AnAvailablePortStaysBoundUntilDestroyed) {
    const Descriptor listener = listenOnLoopback();
    Socket socket;
    EXPECT_FALSE(socket.IsPortAvailable(portOf(listener)));
    EXPECT_EQ(socket.GetLastError(), EADDRINUSE);
    ASSERT_TRUE(socket.IsPortAvailable(0));
    const int port = portOf(socket.GetDescriptor());
    Socket other;
    EXPECT_FALSE(other.IsPortAvailable(port));
    const int descriptor = other.GetDescriptor();
    socket.DestroySocket();
    EXPECT_TRUE(other.IsPortAvailable(port));
    EXPECT_FALSE(isOpen(descriptor)) << "the next check lets go of the descriptor before";
}

// ---- connection and waiting ----

TEST(Socket, ConnectRefusesWhatIsNoAddress) {
    Socket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
    const struct {
        const char* address;
        std::uint16_t port;
    } cases[] = {{nullptr, 80}, {"127.0.0.1", 0}, {"localhost", 80}, {"255.255.255.255", 80}};
    for (const auto& c : cases) {
        EXPECT_FALSE(socket.Connect(c.address, c.port, 1000));
        EXPECT_EQ(socket.GetLastError(), EINVAL) << (c.address != nullptr ? c.address : "null");
    }
}

TEST(Socket, ConnectionIsActiveOnlyWithAPeer) {
    Connection connection;
    EXPECT_TRUE(connection.socket.IsActive());
    EXPECT_EQ(connection.socket.GetLastError(), 0);
    const std::uint16_t unused = portOf(listenOnLoopback());
    Socket refused;
    ASSERT_TRUE(refused.CreateSocket(AF_INET, nullptr, nullptr));
    refused.Connect("127.0.0.1", unused, 1000);
    EXPECT_FALSE(refused.IsActive());
}

TEST(Socket, ConnectTimesOutWhenThePeerDoesNotAnswer) {
    const Descriptor listener = listenOnLoopback(0);
    Socket sockets[4];  // more than the queue of the listener takes
    bool connected = true;
    for (Socket& socket : sockets) {
        ASSERT_TRUE(socket.CreateSocket(AF_INET, nullptr, nullptr));
        connected = socket.Connect("127.0.0.1", portOf(listener), kBrief);
    }
    EXPECT_FALSE(connected);
    EXPECT_EQ(sockets[3].GetLastError(), ETIMEDOUT);
    EXPECT_GE(sockets[3].GetDescriptor(), 0);
}

TEST(Socket, SelectAnswersAsItsFlagsSay) {
    Connection connection;
    Socket& socket = connection.socket;
    const auto answer = [&socket](bool read, bool write, bool except) {
        return socket.Select(kBrief, read, write, except) ? 0 : socket.GetLastError();
    };
    EXPECT_EQ(answer(true, false, false), ETIMEDOUT);
    EXPECT_EQ(answer(false, true, false), 0);
    ::send(connection.peer, "x", 1, MSG_OOB);
    EXPECT_EQ(answer(false, false, true), 0);
    EXPECT_EQ(answer(false, false, false), ETIMEDOUT);
    char byte;
    recv(socket.GetDescriptor(), &byte, 1, MSG_OOB);
    connection.peer.reset();
    shutdown(socket.GetDescriptor(), SHUT_RDWR);
    EXPECT_EQ(answer(true, false, false), 0) << "a broken connection is readable";
    EXPECT_EQ(answer(false, true, false), 0) << "a broken connection is writable";
    EXPECT_EQ(answer(false, false, true), ETIMEDOUT) << "a broken connection is nothing exceptional";
    EXPECT_EQ(answer(false, false, false), ETIMEDOUT) << "no flags, only sleep";
    close(socket.GetDescriptor());
    EXPECT_EQ(answer(true, false, false), EBADF);
    EXPECT_EQ(answer(false, false, false), ETIMEDOUT);
    socket.ResetSocket();
    EXPECT_EQ(answer(true, false, false), ENOTSOCK);
}

TEST(Socket, DescriptorsBeyondSelectWork) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max <= 1500) GTEST_SKIP() << "this process may not have descriptors of 1024 and above";
    Connection low;
    const sockaddr address{AF_INET, {}};
    Socket high(fcntl(low.socket.GetDescriptor(), F_DUPFD, 1500), &address, 0);
    ASSERT_GE(high.GetDescriptor(), 1500);
    high.SetReadWriteTimeout(kBrief);
    char byte = 0;
    EXPECT_EQ(high.Receive(&byte, 1, 0), -1);
    EXPECT_EQ(high.GetLastError(), ETIMEDOUT);
    std::thread late([&low] { give(low.peer, "z"); });
    EXPECT_TRUE(high.IsSocketReadable(5000));
    late.join();
    EXPECT_EQ(high.Receive(&byte, 1, 0), 1);
    EXPECT_EQ(byte, 'z');
}

volatile std::sig_atomic_t alarms = 0;

TEST(Socket, SignalsNeitherEndNorRestartAWait) {
    Connection connection;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { alarms = alarms + 1; };
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = std::chrono::steady_clock::now();
    char byte = 0;
    EXPECT_EQ(connection.socket.Receive(&byte, 1, 0), -1);
    const auto waited = std::chrono::steady_clock::now() - start;
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    EXPECT_GE(waited, std::chrono::milliseconds(kBrief));
    EXPECT_GT(alarms, 0);
}

// ---- sending and receiving ----

TEST(Socket, TransfersNeedASocketAndWaitAtMostTheTimeout) {
    char byte = 0;
    Socket none;
    EXPECT_EQ(none.Receive(&byte, 1, 0), -1);
    EXPECT_EQ(none.GetLastError(), ENOTSOCK);
    EXPECT_EQ(none.Send(&byte, 1, 0), -1);
    EXPECT_EQ(none.GetLastError(), ENOTSOCK);
    EXPECT_EQ(none.ReceiveNum(&byte, -1), 0);
    EXPECT_EQ(none.SendNum(&byte, 0), 0);

    Connection connection;
    connection.socket.setNonBlocking(false);  // the time-out holds even so
    for (const std::uint32_t size : {1u, 0u}) {
        EXPECT_EQ(connection.socket.Receive(&byte, size, 0), -1) << size;
        EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT) << size;
    }
    give(connection.peer, "x");
    EXPECT_EQ(connection.socket.Receive(&byte, 1, 0), 1);
    EXPECT_EQ(connection.socket.GetLastError(), 0);

    Socket listening;
    ASSERT_TRUE(listening.CreateSocket(AF_INET, "127.0.0.1", nullptr));
    listen(listening.GetDescriptor(), 1);
    listening.SetReadWriteTimeout(kBrief);
    EXPECT_EQ(listening.Receive(&byte, 1, 0), -1);
    EXPECT_EQ(listening.GetLastError(), ETIMEDOUT);
}

TEST(Socket, ReceiveNumGathersSinglesAndStopsAtAnEarlyClose) {
    Connection connection;
    connection.socket.SetReadWriteTimeout(5000);
    std::thread peer([&connection] {
        for (const char* byte = "0123456789abcdef"; *byte != '\0'; ++byte) {
            give(connection.peer, std::string(1, *byte));
            std::this_thread::yield();
        }
        connection.peer.reset();
    });
    char buffer[10] = {};
    EXPECT_EQ(connection.socket.ReceiveNum(buffer, 10), 10);
    EXPECT_EQ(std::string(buffer, 10), "0123456789");
    EXPECT_EQ(connection.socket.ReceiveNum(buffer, 10), 6);
    EXPECT_EQ(std::string(buffer, 6), "abcdef");
    EXPECT_EQ(connection.socket.ReceiveNum(buffer, 10), 0);
    peer.join();
}

TEST(Socket, AResetOrATimeoutAfterSomeBytesIsAnError) {
    Connection connection;
    char buffer[10];
    give(connection.peer, "abc");
    EXPECT_EQ(connection.socket.ReceiveNum(buffer, 10), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    const linger reset{1, 0};
    setsockopt(connection.peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    connection.peer.reset();
    EXPECT_EQ(connection.socket.ReceiveNum(buffer, 10), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ECONNRESET);
}

TEST(Socket, SendToAClosedPeerIsAnErrorAndNoSignal) {
    for (const bool local : {false, true}) {
        Connection connection(local);
        connection.peer.reset();
        int sent = 1;
        for (int i = 0; i < 1000 && sent > 0; ++i)
            sent = connection.socket.Send("x", 1, 0);
        EXPECT_EQ(sent, -1);
        EXPECT_EQ(connection.socket.SendNum("xx", 2), -1);
        EXPECT_EQ(connection.socket.GetLastError(), EPIPE);
    }
}

TEST(Socket, SendNumTimesOutOnAFullBufferAndFinishesOnceThePeerReads) {
    const std::string large(8 << 20, 'q');
    const int size = static_cast<int>(large.size());
    Connection stuck;
    EXPECT_EQ(stuck.socket.SendNum(large.data(), size), -1);
    EXPECT_EQ(stuck.socket.GetLastError(), ETIMEDOUT);
    EXPECT_EQ(stuck.socket.Send("", 0, 0), -1);
    EXPECT_EQ(stuck.socket.GetLastError(), ETIMEDOUT);

    Connection flowing;
    flowing.socket.SetReadWriteTimeout(5000);
    std::string received;
    std::thread peer([&] {
        std::vector<char> buffer(64 << 10);
        ssize_t count;
        while ((count = recv(flowing.peer, buffer.data(), buffer.size(), 0)) > 0) {
            received.append(buffer.data(), static_cast<std::size_t>(count));
        }
    });
    EXPECT_EQ(flowing.socket.SendNum(large.data(), size), size);
    shutdown(flowing.socket.GetDescriptor(), SHUT_WR);
    peer.join();
    EXPECT_EQ(received, large);
}

// ---- texts ----

TEST(Socket, ReceiveStopsAfterTheDelimiterOrAtItsLimit) {
    Connection connection(true);
    CText text("an older and longer content");
    give(connection.peer, "one\ntwo");
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 4);
    EXPECT_EQ(contentOf(text), "one\n");
    EXPECT_EQ(connection.socket.Receive(text, '\n'), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ETIMEDOUT);
    EXPECT_EQ(contentOf(text), "two");
    give(connection.peer, std::string(65540, 'n'));
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 65534);
    connection.peer.reset();
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 6);
    EXPECT_EQ(contentOf(text), "nnnnnn");
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 0);
    EXPECT_TRUE(text.IsEmpty());
}

TEST(Socket, HeaderEndsAtItsEmptyLine) {
    const struct {
        const char* input;
        int length;
    } cases[] = {
        {"HTTP/1.0 200 OK\r\nServer: x\r\n\r\nbody", 30},
        {"a\r\n\r\nb", 5},
        {"a\n\nb", 3},
        {"a\n\r\nb", 4},
        {"a\r\rb", 3},
        {"a\r\n\r\rb", 5},
        {"a\n\r\rb", 4},
        {"\r\n\r\nb", 4},
        {"\n\nb", 2},
        {"a\r\n\nb", 4},
        {"a\r\nb\n\rc\n\nd", 9},
        {"a\r\n\rb\r\n\r\nc", 9},
    };
    for (const auto& c : cases) {
        Connection connection(true);
        give(connection.peer, c.input);
        CText text;
        EXPECT_EQ(connection.socket.ReceiveHTTP(text, 2, 0), c.length) << testing::PrintToString(c.input);
        EXPECT_EQ(contentOf(text), std::string(c.input, static_cast<std::size_t>(c.length)));
        std::string rest(c.input + c.length);
        char buffer[16];
        EXPECT_EQ(connection.socket.Receive(buffer, sizeof buffer, 0), static_cast<int>(rest.size()));
    }
}

TEST(Socket, ReceiveHTTPKeepsItsLimits) {
    const struct {
        int mode;
        std::uint32_t maxLength;
        int length;
    } cases[] = {{2, 600, 600},  {2, 511, 65534}, {1, 512, 512},
                 {1, 600, 1024}, {1, 0, 65536},   {0, 0xFFFFFFFF, 70000}};
    std::string input;
    for (int i = 0; i < 70000; ++i)
        input += static_cast<char>('a' + i % 23);
    for (const auto& c : cases) {
        Connection connection(true);
        give(connection.peer, input);
        connection.peer.reset();
        CText text;
        EXPECT_EQ(connection.socket.ReceiveHTTP(text, c.mode, c.maxLength), c.length);
        EXPECT_EQ(contentOf(text), input.substr(0, static_cast<std::size_t>(c.length)));
    }
}

TEST(Socket, ATextThatCannotGrowIsNotOverrun) {
    Connection connection(true);
    CTextLocal<31> text;
    give(connection.peer, "short\n" + std::string(100, 'l'));
    EXPECT_EQ(connection.socket.Receive(text, '\n'), 6);
    EXPECT_EQ(connection.socket.Receive(text, '\n'), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ENOMEM);
    EXPECT_EQ(contentOf(text), std::string(30, 'l'));
    EXPECT_EQ(connection.socket.ReceiveHTTP(text, 1, 0), -1);
    EXPECT_EQ(connection.socket.GetLastError(), ENOMEM);
}

// ---- names ----

TEST(Socket, CastToIPTakesDottedTextAsItStandsAndLooksNamesUp) {
    const struct {
        const char* host;
        bool all;
        const char* address;
        int lookups;
    } cases[] = {
        {"127.0.0.1", true, "127.0.0.1", 0},  {"10.1", false, "10.1", 0},
        {nullptr, true, nullptr, 0},          {"", true, nullptr, 0},
        {"three.test", false, "10.0.0.1", 1}, {"three.test", true, "10.0.0.1:10.0.0.2:10.0.0.3", 1},
        {"unknown.test", true, nullptr, 1},   {"six.test", true, nullptr, 1},
    };
    for (const auto& c : cases) {
        CText out("old");
        lookups = 0;
        EXPECT_STREQ(Socket::castToIP(c.host, out, c.all), c.address);
        EXPECT_STREQ(out.GetTextEx(), c.address != nullptr ? c.address : "");
        EXPECT_EQ(lookups, c.lookups);
    }
}

}  // namespace
