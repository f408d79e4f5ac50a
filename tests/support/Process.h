// Process: a child process under full control of a test: its argument vector, environment, descriptors,
// limits and end.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace support {

struct Command {
    std::string program;                   // the file to run
    std::vector<std::string> arguments;    // the whole vector, the program's name included
    std::vector<std::string> environment;  // all of it, "NAME=value"; nothing is inherited
    std::string directory;                 // working directory; empty: the test's own
    std::string input;                     // the whole standard input
    std::set<int> closed;                  // which of the descriptors 0, 1 and 2 are not open at all
    std::vector<int> ignoredSignals;       // all others start with their default action
    uid_t user = static_cast<uid_t>(-1);   // user and group to run as, when the test may change them
};

struct Outcome {
    bool endedByItself = false;  // false: the time limit passed and the child was killed
    int exitStatus = -1;         // -1 when a signal ended it; 127 when it could not be run
    int signal = 0;
    std::string out;
    std::string err;
};

// The test's own environment, for children that should inherit it.
std::vector<std::string> currentEnvironment();

// One child, running from construction on. It leads a process group of its own; what is left of the group is
// killed in the end. Input is fed and output collected while an operation waits: between them a child can
// write as much as a pipe holds. Operations are for one thread.
class Process {
  public:
    explicit Process(Command command);
    Process(const Process&) = delete;
    ~Process();

    pid_t pid() const { return pid_; }
    bool running() { return !reap(); }
    void kill(int signal);  // to the child itself; nothing once it ended

    std::string out() { return captured(1); }  // so far
    std::string err() { return captured(2); }
    // Waits until what was captured contains the text; false when the child closed the stream or the limit
    // passed before.
    bool waitForOut(const std::string& text, std::chrono::milliseconds limit);
    bool waitForErr(const std::string& text, std::chrono::milliseconds limit);

    // Waits for the end and collects everything. A child still running at the limit is killed.
    Outcome wait(std::chrono::milliseconds limit);

  private:
    bool pump(const std::function<bool()>& done, std::chrono::milliseconds limit);
    bool waitFor(std::size_t stream, const std::string& text, std::chrono::milliseconds limit);
    std::string captured(std::size_t stream);
    bool reap(int options = WNOHANG);  // true once the child has ended

    pid_t pid_ = -1;
    int ended_ = -1;  // a descriptor that is readable once the child has ended
    bool reaped_ = false;
    int status_ = 0;
    std::array<int, 3> descriptors_{-1, -1, -1};  // this side of the standard three; -1: done
    std::array<std::string, 3> texts_;            // what to feed; what was captured
    std::size_t fed_ = 0;
};

// Runs a command to its end.
Outcome run(Command command, std::chrono::milliseconds limit);

}  // namespace support
