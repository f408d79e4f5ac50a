// Server: listening, connections, threads and the end.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Exchange.h"
#include "Options.h"
#include "net/Socket.h"
#include "platform/osfile_impl.h"

// A pool of workers, each of which accepts a connection, holds its conversation and accepts the next. The
// pool grows while all of them are busy, up to the number of connections asked for; further clients wait in
// the listening queue.
class Server {
  public:
    // Listens; throws std::runtime_error when it cannot. The options must outlive the server.
    explicit Server(const Options& options);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::string endpoint() const;  // with the port that was really given

    void start();
    // No new conversations; running ones get a short while to end by themselves, then they are cut off.
    void stop();

  private:
    void addWorker();  // with the lock held
    void work();
    int accept(sockaddr_storage& peer,
               socklen_t& length);  // the next connection, or -1: the server ends
    void serve(int descriptor, const sockaddr_storage& peer, socklen_t length);
    void converse(Socket& socket, const std::string& client);
    std::string ownEndpoint(int socket) const;
    static void logExchange(const std::string& client, Exchange& exchange,
                            std::chrono::steady_clock::duration elapsed);
    bool enter(int descriptor);
    void leave(int descriptor, Socket& socket);
    bool isStopping();

    const Options& options_;
    const Descriptor listener_;

    std::mutex mutex_;  // guards what follows
    std::condition_variable left_;
    std::vector<std::thread> workers_;
    std::set<int> connections_;  // descriptors; closed only with the lock held
    bool stopping_ = false;
};
