// Slot: what a thread of the host is at work on, as others may see and end it.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <mutex>

// Threads: begin() and end() the slot's own, the others any.
class Slot {
  public:
    using Clock = std::chrono::steady_clock;

    void begin(int connection, Clock::time_point deadline) {
        const std::lock_guard lock(mutex_);
        connection_ = connection;
        deadline_ = deadline;
    }

    // Before the connection is closed: its number may then be another's.
    void end() {
        const std::lock_guard lock(mutex_);
        connection_ = -1;
    }

    bool isBusy() const {
        const std::lock_guard lock(mutex_);
        return connection_ != -1;
    }

    // Ends the waits of a request that is overdue: first for what the web server sends, so that there may still be an
    // answer, and a while later for all of it.
    void look(Clock::time_point now) {
        constexpr std::chrono::seconds kForAnAnswer(5);
        const std::lock_guard lock(mutex_);
        if (connection_ == -1 || now < deadline_) return;
        shutdown(connection_, now < deadline_ + kForAnAnswer ? SHUT_RD : SHUT_RDWR);
    }

    void cut() {
        const std::lock_guard lock(mutex_);
        if (connection_ != -1) shutdown(connection_, SHUT_RDWR);
    }

  private:
    mutable std::mutex mutex_;
    int connection_ = -1;
    Clock::time_point deadline_;
};
