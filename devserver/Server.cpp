#include "Server.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "Conversation.h"
#include "Log.h"
#include "Pages.h"
#include "common/Text.h"

namespace {

constexpr std::chrono::seconds kFarewell(2);
constexpr std::chrono::milliseconds kRetry(100);

}  // namespace

// The workers wait in accept() itself.
Server::Server(const Options& options) : options_(options), listener_(listenOn(options.listen, false)) {
    ::fcntl(listener_.get(), F_SETFL, ::fcntl(listener_.get(), F_GETFL) & ~O_NONBLOCK);
}

Server::~Server() {
    stop();
}

std::string Server::endpoint() const {
    return ownEndpoint(listener_.get());
}

std::string Server::ownEndpoint(int socket) const {
    return options_.listen.path.empty() ? addressOf(socket) : options_.listen.text();
}

void Server::start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    addWorker();
}

void Server::stop() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        stopping_ = true;
        ::shutdown(listener_.get(), SHUT_RDWR);  // wakes all who wait in accept()
        left_.wait_for(lock, kFarewell, [this] { return connections_.empty(); });
        for (const int descriptor : connections_)
            ::shutdown(descriptor, SHUT_RDWR);
    }
    // Nobody adds a worker any more.
    for (std::thread& worker : workers_)
        worker.join();
    workers_.clear();
}

void Server::addWorker() {
    workers_.emplace_back(&Server::work, this);
}

void Server::work() {
    sockaddr_storage peer{};
    socklen_t length = 0;
    for (int descriptor = accept(peer, length); descriptor >= 0; descriptor = accept(peer, length))
        serve(descriptor, peer, length);
}

int Server::accept(sockaddr_storage& peer, socklen_t& length) {
    for (;;) {
        length = sizeof peer;
        const int descriptor =
            ::accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (descriptor >= 0) return descriptor;
        const int error = errno;
        if (isStopping()) return -1;
        if (error == EINTR || error == ECONNABORTED) continue;
        logError(std::string("cannot accept a connection: ") + std::strerror(error));
        std::this_thread::sleep_for(kRetry);
    }
}

void Server::serve(int descriptor, const sockaddr_storage& peer, socklen_t length) {
    Socket socket(descriptor, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    if (!enter(descriptor)) return;
    const bool hasAddress = peer.ss_family != AF_UNIX;
    const std::string client = hasAddress ? textOf(peer, length) : endpoint();
    try {
        converse(socket, client);
    } catch (const HungUp&) {
    } catch (const ConversationError& error) {
        logError(client + ": " + (isStopping() ? "cut off, the server ends" : error.what()));
    } catch (const std::exception& error) {
        logError(client + ": " + error.what());
    }
    leave(descriptor, socket);
}

void Server::converse(Socket& socket, const std::string& client) {
    const auto start = std::chrono::steady_clock::now();
    Conversation conversation(socket, options_);
    Request request;
    if (!conversation.receiveRequest(request)) return;

    const Identity identity = {ownEndpoint(socket.GetDescriptor()), options_.sid};
    Exchange exchange(options_, identity, request, conversation);
    const auto tell = [&] {
        if (options_.verbose) logExchange(client, exchange, std::chrono::steady_clock::now() - start);
    };
    try {
        answer(exchange);
    } catch (...) {  // the connection has ended, as it does when the server misbehaves
        tell();
        throw;
    }
    tell();
}

void Server::logExchange(const std::string& client, Exchange& exchange,
                         std::chrono::steady_clock::duration elapsed) {
    const Request& request = exchange.request;
    const std::string& query = request[QUIL_PARAM_QUERY_STRING];
    logLine(format("%s \"%s %s\" %u, %llu bytes, %.1f ms", client.c_str(),
                   printable(request[QUIL_PARAM_REQUEST_METHOD]).c_str(),
                   printable(request.path() + (query.empty() ? "" : "?" + query)).c_str(),
                   exchange.response.code(), static_cast<unsigned long long>(exchange.response.bodyLength()),
                   std::chrono::duration<double, std::milli>(elapsed).count()));
}

// Takes the connection on, and sees to it that somebody is left to accept the next.
bool Server::enter(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    connections_.insert(descriptor);
    if (connections_.size() == workers_.size() && workers_.size() < options_.connections) {
        try {
            addWorker();
        } catch (const std::system_error& error) {
            logError(std::string("no further thread: ") + error.what());
        }
    }
    return true;
}

void Server::leave(int descriptor, Socket& socket) {
    const std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(descriptor);
    socket.DestroySocket();
    left_.notify_all();
}

bool Server::isStopping() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return stopping_;
}
