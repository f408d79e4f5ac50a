// Process: a child process under full control of a test: its argument vector, environment, descriptors,
// limits and end.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace support {

enum class Stream {
    Null,    // /dev/null
    Closed,  // the descriptor is not open at all
    Pipe,    // standard input: fed with Command::input, then closed; output: captured
};

struct Command {
    std::string program;                   // the file to run
    std::vector<std::string> arguments;    // the whole vector, the program's name included; may be empty
    std::vector<std::string> environment;  // the whole environment, "NAME=value"; nothing is inherited
    std::string directory;                 // working directory; empty: the test's own

    Stream in = Stream::Null;
    Stream out = Stream::Pipe;
    Stream err = Stream::Pipe;
    std::string input;

    std::vector<std::pair<int, rlim_t>> limits;  // RLIMIT_...: soft and hard limit
    std::vector<int> ignoredSignals;             // all others start with their default action
    uid_t user = static_cast<uid_t>(-1);         // user and group to run as, when the test may change them
};

struct Outcome {
    bool endedByItself = false;  // false: the time limit passed and the child was killed
    int exitStatus = -1;         // -1 when a signal ended it
    int signal = 0;
    std::string out;
    std::string err;
};

// The test's own environment, for children that should inherit it.
std::vector<std::string> currentEnvironment();

// One child, running from construction on. It leads a process group of its own; the destructor kills what is
// left of the group and reaps the child. Output is collected by a thread all the while, so a child never
// blocks on a full pipe. Operations are for one thread.
class Process {
  public:
    explicit Process(Command command);  // throws std::runtime_error when the program cannot be run
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    pid_t pid() const { return pid_; }
    bool running();         // has not ended yet
    void kill(int signal);  // to the child itself; nothing once it ended

    std::string out();  // captured so far
    std::string err();
    // Waits until what was captured contains the text; false when the child closed the stream or the limit
    // passed before.
    bool waitForOut(const std::string& text, std::chrono::milliseconds limit);
    bool waitForErr(const std::string& text, std::chrono::milliseconds limit);

    // Waits for the end and collects everything. A child still running at the limit is killed.
    Outcome wait(std::chrono::milliseconds limit);

  private:
    struct Capture {
        int descriptor = -1;  // -1: nothing more comes
        std::string text;
    };

    void pump();
    void stopPumping();
    bool reap();  // true once the child has ended
    bool waitFor(const Capture& capture, const std::string& text, std::chrono::milliseconds limit);

    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = 0;

    std::string input_;
    int inputDescriptor_ = -1;
    int wakeUp_[2] = {-1, -1};
    std::mutex mutex_;  // guards the captures
    std::condition_variable changed_;
    Capture out_;
    Capture err_;
    std::thread pump_;
};

// Runs a command to its end.
Outcome run(Command command, std::chrono::milliseconds limit);

}  // namespace support
