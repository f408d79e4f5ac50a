// Connections: the web server's connections to a host, and which of them has work to do.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>

#include "platform/osfile_impl.h"

// Takes the listener's connections and hands each, when a request begins to come, to one of the threads that ask for
// work. One on which nothing happens binds no thread. Beyond the limit new connections wait in the listener's queue.
// Threads: any.
class Connections {
  public:
    // The listener is non-blocking and stays the caller's. Throws std::system_error.
    Connections(int listener, unsigned limit);
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;
    ~Connections();

    // Waits for a connection with work; -1: there will be none. It is given back by one of the two below.
    int next();
    void keep(int connection);  // it waits for its next request
    void forget();              // one has been closed

    // Takes what still waits at the listener, and no more after it. A connection that has served a request goes when
    // there is none to follow; a new one may still send its first.
    void drain();
    void end();  // every next() returns -1

    unsigned count() const { return count_; }

  private:
    void add(int descriptor, std::uint32_t events);
    void await(int connection, std::set<int>& among);
    int accept();
    void listenAgain();

    const int listener_;
    const unsigned limit_;
    const Descriptor poll_;
    const Descriptor ending_;
    std::atomic<unsigned> count_{0};
    std::atomic<bool> isDraining_{false};
    std::mutex mutex_;     // guards what follows
    std::set<int> fresh_;  // wait for their first request
    std::set<int> kept_;   // wait for another
    bool isFull_ = false;  // the listener waits until a connection goes
};
