// A second process and a second thread of a test's own: startChild, Runner.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

namespace support {

// A child process that runs the body and ends with what the body returned (0 to 255).
template <class Body>
pid_t startChild(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    return child;
}

// Waits for the child's end. Its body's result, -1 when a signal ended it.
inline int resultOf(pid_t child) {
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits until the task, a folder below /proc, sleeps in the kernel (true) or has ended (false). A thread, which
// leaves nothing behind, tells its end by hasEnded().
template <class HasEnded>
bool sleeps(const std::string& task, HasEnded hasEnded) {
    for (int seen = 0; seen < 5 && !hasEnded(); usleep(1000)) {
        std::ifstream file("/proc/" + task + "/stat");
        std::string stat;
        seen = std::getline(file, stat) && stat.find(") S ") != std::string::npos ? seen + 1 : 0;
        if (stat.find(") Z ") != std::string::npos) return false;
    }
    return !hasEnded();
}

// A thread of which a test can tell, without a clock, whether it blocks. Runs the body at once; the
// destructor waits for its end. The body must not sleep except in what is tested.
class Runner {
  public:
    template <class Body>
    explicit Runner(Body body)
        : thread_([this, body] {
              tid_ = gettid();
              body();
              done_ = true;
          }) {}
    ~Runner() { thread_.join(); }

    // Waits until the thread sleeps in the kernel (true) or its body has ended (false).
    bool blocks() const {
        while (tid_ == 0)
            usleep(1000);
        return sleeps("self/task/" + std::to_string(tid_), [this] { return done_.load(); });
    }

  private:
    std::atomic<pid_t> tid_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;  // last: it uses the others
};

}  // namespace support
