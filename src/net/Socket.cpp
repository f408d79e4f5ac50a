// Socket over the POSIX and Linux socket calls: the one wait with poll(), the one transfer routine under
// every receive and send, and what is built on them.
#include "net/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "platform/AddressFamily.h"
#include "platform/systimer_impl.h"

namespace {

constexpr std::uint32_t kConnectTimeout = 3000;      // milliseconds
constexpr std::uint32_t kReadWriteTimeout = 300000;  // milliseconds
constexpr std::uint32_t kTextBlock = 512;            // bytes
constexpr std::uint32_t kTextLimit = 65534;          // bytes
constexpr std::uint32_t kCountLimit = INT_MAX - kTextBlock;
constexpr int kHeaderOnly = 2;

// The end of an HTTP header: the next state after CR, LF and any other byte.
constexpr std::uint8_t quitter_table[][3] = {{1, 2, 0}, {4, 2, 0}, {3, 4, 0}, {4, 4, 0}};
constexpr std::uint8_t kHeaderEnds = 4;

socklen_t addressSize(int family) {
    if (family == AF_UNIX) return sizeof(sockaddr_un);
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// Writes an address of the block's family, and its port, into the block; null: any address. False when the text is none of
// that family. A family that is not known has the layout of IPv4.
bool writeAddress(sockaddr* block, const char* text, std::uint16_t port) {
    if (block->sa_family == AF_UNIX) {
        auto* local = reinterpret_cast<sockaddr_un*>(block);
        if (text != nullptr && std::strlen(text) >= sizeof local->sun_path) return false;
        std::strcpy(local->sun_path, text != nullptr ? text : "");
        return true;
    }
    if (block->sa_family == AF_INET6) {
        auto* six = reinterpret_cast<sockaddr_in6*>(block);
        six->sin6_port = htons(port);
        return text == nullptr || inet_pton(AF_INET6, text, &six->sin6_addr) == 1;
    }
    auto* four = reinterpret_cast<sockaddr_in*>(block);
    four->sin_port = htons(port);
    four->sin_addr.s_addr = text != nullptr ? inet_addr(text) : INADDR_ANY;
    return true;
}

bool isEmpty(const char* text) {
    return text == nullptr || *text == '\0';
}

bool setOption(int descriptor, int level, int option, int value) {
    return setsockopt(descriptor, level, option, &value, sizeof value) == 0;
}

// The tail of a long message must not wait until the peer acknowledges the rest. Sockets that are not TCP
// have no such option and need none.
void sendWithoutDelay(int descriptor) {
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
}

// The IPv4 addresses of a name, or the first of them. Not inlined, because a dotted address would pay for the
// buffer on the stack, too.
[[gnu::noinline]] bool lookUp(const char* name, CText& out, bool all) {
    char buffer[16384];
    hostent entry{};
    hostent* found = nullptr;
    int error = 0;
    if (gethostbyname_r(name, &entry, buffer, sizeof buffer, &found, &error) != 0 || found == nullptr)
        return false;
    if (found->h_addrtype != AF_INET || found->h_length != sizeof(in_addr)) return false;
    for (char** item = found->h_addr_list; *item != nullptr; ++item) {
        char text[INET_ADDRSTRLEN];
        if (inet_ntop(AF_INET, *item, text, sizeof text) == nullptr) return false;
        if (!out.IsEmpty()) out += ":";
        out += text;
        if (!all) break;
    }
    return true;
}

// Room in the text for so many bytes and the terminator after the first count ones.
bool makeRoom(CText& text, std::uint32_t count, std::uint32_t more) {
    const std::uint32_t needed = count + more + 1;
    return needed <= text.GetBufferSize() || text.SetBufferSize(std::max(2 * count, needed));
}

// Runs step(bytes done) until size bytes are done or the other side ends.
template <typename Step>
int repeatUntil(int size, Step step) {
    int done = 0;
    while (done < size) {
        const int count = step(done);
        if (count < 0) return -1;
        if (count == 0) break;
        done += count;
    }
    return done;
}

}  // namespace

// A time-out. It begins with the first wait: most transfers end without one, and without a look at the clock.
class Socket::Deadline {
  public:
    explicit Deadline(std::uint32_t milliseconds) : left_(milliseconds * kMillisecond) {}

    // Milliseconds for poll(), rounded up so that no wait ends early; a longer wait takes several.
    int pollTime() {
        look();
        return static_cast<int>(
            std::clamp<std::int64_t>((left_ + kMillisecond - 1) / kMillisecond, 0, INT_MAX));
    }

    bool hasPassed() {
        look();
        return left_ <= 0;
    }

  private:
    static constexpr std::int64_t kMillisecond = 1000000;  // nanoseconds

    void look() {
        const std::int64_t now = MonotonicTime();
        if (seen_ != 0) left_ -= now - seen_;
        seen_ = now;
    }

    std::int64_t left_;
    std::int64_t seen_ = 0;  // when the clock was read last
};

// ---- life ----

Socket::Socket() {
    InitSocketData();
    address_.reset(AllocSocketAddress(AF_INET, 0));
}

Socket::Socket(const Socket& other) {
    InitSocketData();
    descriptor_ = other.descriptor_;
    address_.reset(other.copyOfAddress());
}

Socket::Socket(int descriptor, const sockaddr* address, std::uint32_t length) {
    InitSocketData();
    CreateSocket(descriptor, address, length);
}

Socket& Socket::operator=(const Socket& other) {
    if (this == &other) return *this;
    if (descriptor_ != other.descriptor_) {
        closeDescriptor();
        descriptor_ = other.descriptor_;
    }
    address_.reset(other.copyOfAddress());
    return *this;
}

Socket::~Socket() {
    DestroySocket();
}

void Socket::InitSocketData() {
    descriptor_ = -1;
    ownsDescriptor_ = false;
    address_.reset();
    lastError_ = 0;
    readWriteTimeout_ = kReadWriteTimeout;
}

void Socket::ResetSocket() {
    InitSocketData();
}

bool Socket::DestroySocket() {
    const bool closed = closeDescriptor();
    ResetSocket();
    return closed;
}

// Ends what the object owns; a view only lets go.
bool Socket::closeDescriptor() {
    bool closed = true;
    if (ownsDescriptor_) {
        closed = shutdown(descriptor_, SHUT_RDWR) == 0;
        closed = close(descriptor_) == 0 && closed;
    }
    descriptor_ = -1;
    ownsDescriptor_ = false;
    return closed;
}

std::uint32_t Socket::SetReadWriteTimeout(std::uint32_t milliseconds) {
    return std::exchange(readWriteTimeout_, milliseconds != 0 ? milliseconds : kReadWriteTimeout);
}

int Socket::setNonBlocking(bool on) {
    const int flags = fcntl(descriptor_, F_GETFL);
    const int result =
        flags < 0 ? flags : fcntl(descriptor_, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
    if (result < 0) lastError_ = errno;
    return result;
}

// ---- addresses ----

// No block is smaller than an address of its family, so each can be read as one whatever the caller's size.
sockaddr* Socket::AllocSocketAddress(std::uint16_t family, std::uint32_t size) const {
    auto* block = static_cast<sockaddr*>(std::calloc(1, std::max<std::size_t>(size, addressSize(family))));
    if (block != nullptr) block->sa_family = family;
    return block;
}

sockaddr* Socket::AllocSocketAddress(const sockaddr* source, std::uint32_t size) const {
    if (source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (size == 0) size = sizeof(sockaddr_in);
    sockaddr* block = AllocSocketAddress(source->sa_family, size);
    if (block != nullptr) std::memcpy(block, source, size);
    return block;
}

void Socket::FreeSocketAddress(sockaddr* block) const {
    std::free(block);
}

sockaddr* Socket::copyOfAddress() const {
    return address_ == nullptr ? nullptr
                               : AllocSocketAddress(address_.get(), addressSize(address_->sa_family));
}

// ---- creation ----

bool Socket::CreateSocket(int family, const char* localAddress, const char* localPort) {
    if (hasDescriptorAndAddress()) {
        lastError_ = EALREADY;
        return false;
    }
    const bool anyAddress = isEmpty(localAddress);
    const bool anyPort = isEmpty(localPort);
    const long port = anyPort ? 0 : std::strtol(localPort, nullptr, 10);
    if (!openDescriptor(family, anyAddress ? nullptr : localAddress, static_cast<std::uint16_t>(port)))
        return failCreation();

    // A client's port is better chosen by connect(), which may share it between servers and passes over those
    // of finished connections: a busy gateway does not run out of ports, nor search long for a free one. An
    // older kernel lacks the option and chooses in bind().
    if (anyAddress && anyPort) setOption(descriptor_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
    if (family == AF_INET6 && !anyAddress) setOption(descriptor_, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    const linger noLinger{};
    if (!setOption(descriptor_, SOL_SOCKET, SO_REUSEADDR, 1) || !bindDescriptor() ||
        setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &noLinger, sizeof noLinger) != 0) {
        return failCreation();
    }
    sendWithoutDelay(descriptor_);
    return true;
}

bool Socket::CreateSocket(int descriptor, const sockaddr* address, std::uint32_t length) {
    if (hasDescriptorAndAddress()) {
        lastError_ = EALREADY;
        return false;
    }
    closeDescriptor();
    descriptor_ = descriptor;
    address_.reset(AllocSocketAddress(address, length));
    if (address_ == nullptr) return failCreation();
    setNonBlocking(true);
    if (fcntl(descriptor_, F_SETFD, FD_CLOEXEC) != 0) return failCreation();
    sendWithoutDelay(descriptor_);
    ownsDescriptor_ = true;
    return true;
}

bool Socket::IsPortAvailable(int port) {
    if (openDescriptor(AF_INET, nullptr, static_cast<std::uint16_t>(port)) && bindDescriptor()) return true;
    lastError_ = errno;
    return false;
}

// A new descriptor of the object's own, and the address to bind it to.
bool Socket::openDescriptor(int family, const char* localAddress, std::uint16_t localPort) {
    closeDescriptor();
    address_.reset(AllocSocketAddress(static_cast<std::uint16_t>(family), 0));
    if (address_ == nullptr) return false;
    if (!writeAddress(address_.get(), localAddress, localPort)) {
        errno = EINVAL;
        return false;
    }
    descriptor_ = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ownsDescriptor_ = descriptor_ >= 0;
    return ownsDescriptor_;
}

bool Socket::bindDescriptor() {
    socklen_t length = addressSize(address_->sa_family);
    const bool isLocal = address_->sa_family == AF_UNIX;
    // Given the family alone, Linux chooses a unique name.
    if (isLocal && reinterpret_cast<const sockaddr_un*>(address_.get())->sun_path[0] == '\0')
        length = sizeof(sa_family_t);
    return bind(descriptor_, address_.get(), length) == 0;
}

// Leaves the object unconnected and errno as the reason; a descriptor that is not its own stays open.
bool Socket::failCreation() {
    const int cause = errno;
    closeDescriptor();
    ResetSocket();
    lastError_ = cause;
    return false;
}

// ---- connection ----

bool Socket::Connect(const sockaddr* peer, std::uint32_t length, std::uint32_t milliseconds) {
    if (milliseconds == 0) milliseconds = kConnectTimeout;
    if (connect(descriptor_, peer, length) != 0) {
        lastError_ = errno;
        if (lastError_ == EAGAIN && peer->sa_family == AF_UNIX)
            return waitInQueue(peer, length, milliseconds);
        // Interrupted means in progress too: the system goes on connecting.
        if (lastError_ != EINPROGRESS && lastError_ != EAGAIN && lastError_ != EINTR) return false;
    }
    return Select(milliseconds, false, true, false);
}

// The queue of a unix socket was full: unlike with TCP nothing goes on by itself, the wait is connect()'s own.
bool Socket::waitInQueue(const sockaddr* peer, std::uint32_t length, std::uint32_t milliseconds) {
    bool connected = false;
    setNonBlocking(false);
    Deadline deadline(milliseconds);
    for (lastError_ = EAGAIN; lastError_ == EAGAIN || lastError_ == EINTR;) {
        if (deadline.hasPassed()) {
            lastError_ = ETIMEDOUT;
            break;
        }
        const int left = deadline.pollTime();
        const timeval limit{left / 1000, left % 1000 * 1000L};
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        connected = connect(descriptor_, peer, length) == 0;
        lastError_ = connected ? 0 : errno;
    }
    setNonBlocking(true);
    return connected;
}

bool Socket::Connect(const char* address, std::uint16_t port, std::uint32_t milliseconds) {
    const int family = address != nullptr ? AddressFamily(address) : AF_UNSPEC;
    sockaddr_storage storage{};
    auto* peer = reinterpret_cast<sockaddr*>(&storage);
    peer->sa_family = static_cast<sa_family_t>(family);
    if (family == AF_UNSPEC || (port == 0 && family != AF_UNIX) || !writeAddress(peer, address, port)) {
        lastError_ = EINVAL;
        return false;
    }
    return Connect(peer, addressSize(family), milliseconds);
}

bool Socket::IsActive() const {
    sockaddr_storage peer;
    socklen_t length = sizeof peer;
    return getpeername(descriptor_, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

// ---- waiting ----

bool Socket::Select(std::uint32_t milliseconds, bool read, bool write, bool except) {
    if (!hasDescriptorAndAddress()) {
        lastError_ = ENOTSOCK;
        return false;
    }
    const int events = (read ? POLLIN : 0) | (write ? POLLOUT : 0) | (except ? POLLPRI : 0);
    Deadline deadline(milliseconds);
    return waitUntil(deadline, static_cast<short>(events));
}

// The one place that waits: true when an event has come, else the reason is in lastError_. As with select(),
// a broken connection counts as readable and writable but not as exceptional, and no events means to sleep.
bool Socket::waitUntil(Deadline& deadline, short events) {
    const int sought = (events & (POLLIN | POLLOUT)) != 0 ? events | POLLERR | POLLHUP : events;
    pollfd entry{events != 0 ? descriptor_ : -1, events, 0};
    lastError_ = 0;
    while (lastError_ == 0) {
        const int ready = poll(&entry, 1, deadline.pollTime());
        if (ready < 0) {
            if (errno != EINTR) lastError_ = errno;
        } else if (ready == 0) {
            if (deadline.hasPassed()) lastError_ = ETIMEDOUT;
        } else if ((entry.revents & POLLNVAL) != 0) {
            lastError_ = EBADF;
        } else if ((entry.revents & sought) != 0) {
            return true;
        } else {
            entry.fd = -1;  // broken: nothing exceptional will come, so sleep out the time
        }
    }
    return false;
}

// ---- sending and receiving ----

// One receive or send, tried first: waiting only when it would block saves a system call in most cases and,
// on a connected socket, looks the same. What would look different is waited for first: a send of nothing
// never blocks, and a socket that is not connected yet refuses at once.
template <typename Attempt>
int Socket::transfer(std::uint32_t size, short events, Attempt attempt) {
    if (!hasDescriptorAndAddress()) {
        lastError_ = ENOTSOCK;
        return -1;
    }
    Deadline deadline(readWriteTimeout_);
    for (bool waits = size == 0;; waits = true) {
        if (waits && !waitUntil(deadline, events)) return -1;
        const ssize_t count = attempt();
        if (count >= 0) {
            lastError_ = 0;
            return static_cast<int>(count);
        }
        lastError_ = errno;
        const bool tooEarly = lastError_ == EAGAIN || lastError_ == EWOULDBLOCK || lastError_ == EINTR ||
                              (lastError_ == ENOTCONN && !waits);
        if (!tooEarly) return -1;
        if (waits && deadline.hasPassed()) {
            lastError_ = ETIMEDOUT;
            return -1;
        }
    }
}

// MSG_DONTWAIT: an adopted socket may have been set to blocking again; the time-out holds all the same.
int Socket::Receive(char* buffer, std::uint32_t size, std::uint32_t flags) {
    const int mode = static_cast<int>(flags) | MSG_DONTWAIT;
    return transfer(size, POLLIN,
                    [this, buffer, size, mode] { return recv(descriptor_, buffer, size, mode); });
}

int Socket::Send(const char* buffer, std::uint32_t size, std::uint32_t flags) {
    const int mode = static_cast<int>(flags) | MSG_DONTWAIT | MSG_NOSIGNAL;
    return transfer(size, POLLOUT,
                    [this, buffer, size, mode] { return send(descriptor_, buffer, size, mode); });
}

int Socket::ReceiveNum(char* buffer, int size) {
    return repeatUntil(size, [this, buffer, size](int done) {
        return Receive(buffer + done, static_cast<std::uint32_t>(size - done), 0);
    });
}

int Socket::SendNum(const char* buffer, int size) {
    return repeatUntil(size, [this, buffer, size](int done) {
        return Send(buffer + done, static_cast<std::uint32_t>(size - done), 0);
    });
}

// Receives blocks into the text while wantsMore(last byte, count of bytes) says so.
template <typename WantsMore>
int Socket::receiveText(CText& text, std::uint32_t blockSize, WantsMore wantsMore) {
    text.SetBufferSize(kTextBlock);
    std::uint32_t count = 0;
    int received = 0;
    do {
        if (!makeRoom(text, count, blockSize)) {
            lastError_ = ENOMEM;
            received = -1;
            break;
        }
        received = Receive(reinterpret_cast<char*>(text.GetBuffer()) + count, blockSize, 0);
        if (received > 0) count += static_cast<std::uint32_t>(received);
    } while (received > 0 && wantsMore(static_cast<char>(text.GetBuffer()[count - 1]), count));
    text.SetUsableDataSize(count);
    return received < 0 ? -1 : static_cast<int>(count);
}

int Socket::Receive(CText& text, char delimiter) {
    return receiveText(
        text, 1, [=](char last, std::uint32_t count) { return last != delimiter && count < kTextLimit; });
}

int Socket::ReceiveHTTP(CText& text, int mode, std::uint32_t maxLength) {
    const std::uint32_t limit = maxLength < kTextBlock ? kTextLimit : std::min(maxLength, kCountLimit);
    if (mode != kHeaderOnly) {
        return receiveText(text, kTextBlock, [=](char, std::uint32_t count) { return count < limit; });
    }
    std::uint8_t state = 0;
    return receiveText(text, 1, [&state, limit](char last, std::uint32_t count) {
        state = quitter_table[state][last == '\r' ? 0 : last == '\n' ? 1 : 2];
        return state != kHeaderEnds && count < limit;
    });
}

// ---- inspection ----

char* Socket::getAddressAsIP() const {
    if (!hasDescriptorAndAddress() || address_->sa_family != AF_INET) return nullptr;
    return inet_ntoa(reinterpret_cast<const sockaddr_in*>(address_.get())->sin_addr);
}

bool Socket::IsSameConnection(int family, Socket* first, Socket* second) {
    if (family != AF_UNIX && family != AF_INET) return false;
    if (first == nullptr || second == nullptr) return false;
    sockaddr_storage peer;
    sockaddr_storage own;
    const socklen_t size = addressSize(family);
    socklen_t peerLength = size;
    socklen_t ownLength = size;
    return getpeername(first->descriptor_, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           getsockname(second->descriptor_, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           peerLength == ownLength && std::memcmp(&peer, &own, std::min(peerLength, size)) == 0;
}

const char* Socket::castToIP(const char* host, CText& out, bool all) {
    out.Clear();
    if (isEmpty(host)) return nullptr;
    if (AddressFamily(host) != AF_UNSPEC) {
        out = host;
        return out.GetText();
    }
    return lookUp(host, out, all) ? out.GetText() : nullptr;
}
