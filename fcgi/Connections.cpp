#include "Connections.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace {

int orThrow(int result, const char* what) {
    if (result == -1) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// Whether there is something to read, or the other side has gone.
bool hasWork(int connection) {
    char byte;
    return recv(connection, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != -1 || errno != EAGAIN;
}

}  // namespace

// Each event goes to one thread: a descriptor is armed for one, and armed again when it was dealt with.
Connections::Connections(int listener, unsigned limit)
    : listener_(listener),
      limit_(limit),
      poll_(orThrow(epoll_create1(EPOLL_CLOEXEC), "epoll")),
      ending_(orThrow(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    add(listener_, EPOLLIN | EPOLLONESHOT);
    add(ending_.get(), EPOLLIN);
}

Connections::~Connections() {
    for (const auto* among : {&fresh_, &kept_}) {
        for (const int connection : *among)
            close(connection);
    }
}

int Connections::next() {
    for (;;) {
        epoll_event event{};
        const int found = uninterrupted([&] { return epoll_wait(poll_.get(), &event, 1, -1); });
        if (found != 1 || event.data.fd == ending_.get()) return -1;
        if (event.data.fd == listener_) {
            const int connection = accept();
            if (connection != -1) return connection;
            continue;
        }
        const std::lock_guard lock(mutex_);
        const bool waits = fresh_.erase(event.data.fd) + kept_.erase(event.data.fd) != 0;
        if (waits) return event.data.fd;  // drain() may have closed it meanwhile
    }
}

// A new connection that has work at once; another waits for it.
int Connections::accept() {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection != -1) {
        ++count_;
    } else if (errno != EAGAIN &&
               errno != ECONNABORTED) {  // no descriptors, no memory: it goes on waiting there
        constexpr timespec kWhile{0, 20000000};
        nanosleep(&kWhile, nullptr);
    }
    listenAgain();
    if (connection == -1 || hasWork(connection)) return connection;
    await(connection, fresh_);
    return -1;
}

void Connections::listenAgain() {
    const std::lock_guard lock(mutex_);
    isFull_ = count_ >= limit_;
    if (isFull_ || isDraining_) return;
    epoll_event event{EPOLLIN | EPOLLONESHOT, {}};
    event.data.fd = listener_;
    epoll_ctl(poll_.get(), EPOLL_CTL_MOD, listener_, &event);
}

void Connections::add(int descriptor, std::uint32_t events) {
    epoll_event event{events, {}};
    event.data.fd = descriptor;
    orThrow(epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event), "epoll");
}

void Connections::keep(int connection) {
    if (isDraining_ && !hasWork(connection)) {
        close(connection);
        forget();
        return;
    }
    await(connection, kept_);
}

// In the list before it is armed: whoever gets its event looks there.
void Connections::await(int connection, std::set<int>& among) {
    const std::lock_guard lock(mutex_);
    among.insert(connection);
    epoll_event event{EPOLLIN | EPOLLRDHUP | EPOLLONESHOT, {}};
    event.data.fd = connection;
    if (epoll_ctl(poll_.get(), EPOLL_CTL_MOD, connection, &event) == 0) return;
    if (errno == ENOENT && epoll_ctl(poll_.get(), EPOLL_CTL_ADD, connection, &event) == 0) return;
    among.erase(connection);
    close(connection);
    --count_;
}

void Connections::forget() {
    --count_;
    bool wasFull;
    {
        const std::lock_guard lock(mutex_);
        wasFull = isFull_;
    }
    if (wasFull) listenAgain();
}

void Connections::drain() {
    isDraining_ = true;
    epoll_ctl(poll_.get(), EPOLL_CTL_DEL, listener_, nullptr);
    while (count_ < limit_) {
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection == -1) break;
        ++count_;
        await(connection, fresh_);
    }
    const std::lock_guard lock(mutex_);
    for (auto i = kept_.begin(); i != kept_.end();) {
        if (hasWork(*i)) {
            ++i;
            continue;
        }
        close(*i);
        --count_;
        i = kept_.erase(i);
    }
}

void Connections::end() {
    eventfd_write(ending_.get(), 1);
}
