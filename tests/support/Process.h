// Process: a child process under full control of a test: its argument vector, environment, input and end.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/osfile_impl.h"
#include "support/TempDir.h"

namespace support {

struct Command {
    std::string program;                   // the file to run
    std::vector<std::string> arguments;    // the whole vector, the program's name included
    std::vector<std::string> environment;  // all of it, "NAME=value"; nothing is inherited
    std::string directory;                 // working directory; empty: the test's own
    std::string input;                     // the whole standard input
};

struct Outcome {
    bool endedByItself = false;  // false: the time limit passed and the child was killed
    int exitStatus = -1;         // -1 when a signal ended it; 127 when it could not be run
    int signal = 0;
    std::string out;
    std::string err;
};

// One child, running from construction on. It leads a process group of its own; what is left of the group is
// killed in the end. Its standard descriptors are files in memory: it never has to wait for the test. A test
// that is about pipes, closed descriptors or ignored signals runs the program through a shell.
class Process {
  public:
    explicit Process(Command command) {
        for (Descriptor& file : files_)
            file.reset(::memfd_create("standard", MFD_CLOEXEC));
        writeFile(nameOf(0), command.input);
        const std::vector<char*> arguments = pointers(command.arguments);
        const std::vector<char*> environment = pointers(command.environment);
        pid_ = ::fork();
        if (pid_ != 0) return;
        // System calls only: another thread of the test may have held any lock.
        ::setpgid(0, 0);
        for (int standard = 0; standard < 3; ++standard)
            ::dup2(files_[standard].get(), standard);
        ::close_range(3, ~0U, 0);
        if (command.directory.empty() || ::chdir(command.directory.c_str()) == 0)
            ::execve(command.program.c_str(), arguments.data(), environment.data());
        ::_exit(127);
    }
    ~Process() {
        if (running()) wait({});
    }

    pid_t pid() const { return pid_; }
    bool running() {
        if (!ended_) ended_ = ::waitpid(pid_, &status_, WNOHANG) == pid_;
        return !ended_;
    }
    void kill(int signal) {  // to the child itself; nothing once it ended
        if (running()) ::kill(pid_, signal);
    }

    std::string out() const { return readFile(nameOf(1)); }  // so far
    std::string err() const { return readFile(nameOf(2)); }
    // Waits until what was written contains the text; false when the child ended or the limit passed before.
    bool waitForOut(const std::string& text, std::chrono::milliseconds limit) {
        return waitUntil([&] { return out().find(text) != std::string::npos; }, limit);
    }

    // Waits for the end and collects everything. A child still running at the limit is killed.
    Outcome wait(std::chrono::milliseconds limit) {
        const bool endedByItself = waitUntil([this] { return !running(); }, limit);
        kill(SIGKILL);
        ::kill(-pid_, SIGKILL);
        while (running())
            ::usleep(1000);
        return {endedByItself, WIFEXITED(status_) ? WEXITSTATUS(status_) : -1,
                WIFSIGNALED(status_) ? WTERMSIG(status_) : 0, out(), err()};
    }

  private:
    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (std::string& text : texts)
            result.push_back(text.data());
        result.push_back(nullptr);
        return result;
    }

    std::string nameOf(int standard) const {
        return "/proc/self/fd/" + std::to_string(files_[standard].get());
    }

    // Until the condition holds, the child has ended or the limit has passed.
    template <class Condition>
    bool waitUntil(Condition holds, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!holds() && running() && std::chrono::steady_clock::now() < end)
            ::usleep(1000);
        return holds();
    }

    Descriptor files_[3];
    pid_t pid_;
    bool ended_ = false;
    int status_ = 0;
};

// Runs a command to its end.
inline Outcome run(Command command, std::chrono::milliseconds limit) {
    return Process(std::move(command)).wait(limit);
}

}  // namespace support
