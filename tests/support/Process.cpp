#include "support/Process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace support {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

int checked(int result, const char* step) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), step);
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// In the child, between fork and exec: system calls only.
void runChild(const Command& command, char* const* arguments, char* const* environment,
              const std::array<int, 3>& given) {
    ::setpgid(0, 0);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int signal = 1; signal < SIGRTMIN; ++signal)
        ::signal(signal, SIG_DFL);
    for (const int signal : command.ignoredSignals)
        ::signal(signal, SIG_IGN);
    for (int standard = 0; standard < 3; ++standard) {
        ::dup2(given[static_cast<std::size_t>(standard)], standard);
        if (command.closed.count(standard) != 0) ::close(standard);
    }
    // Whatever else this process holds open is none of the child's business.
    ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
    if (!command.directory.empty() && ::chdir(command.directory.c_str()) != 0) return;
    const bool changesUser = command.user != static_cast<uid_t>(-1);
    if (changesUser && (::setgid(command.user) != 0 || ::setuid(command.user) != 0)) return;
    ::execve(command.program.c_str(), arguments, environment);
}

}  // namespace

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
        result.emplace_back(*entry);
    return result;
}

Process::Process(Command command) : texts_{command.input, "", ""} {
    ::signal(SIGPIPE, SIG_IGN);  // feeding a child that has gone is an error, no more
    const std::vector<char*> arguments = pointers(command.arguments);
    const std::vector<char*> environment = pointers(command.environment);
    std::array<int, 3> given;
    for (std::size_t i = 0; i < 3; ++i) {
        int ends[2];  // to read from, to write to
        checked(::pipe2(ends, O_CLOEXEC), "pipe2");
        given[i] = ends[i == 0 ? 0 : 1];
        descriptors_[i] = ends[i == 0 ? 1 : 0];
        checked(::fcntl(descriptors_[i], F_SETFL, O_NONBLOCK), "fcntl");
    }
    pid_ = checked(::fork(), "fork");
    if (pid_ == 0) {
        runChild(command, arguments.data(), environment.data(), given);
        ::_exit(127);
    }
    for (const int descriptor : given)
        ::close(descriptor);
    ended_ = checked(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)), "pidfd_open");
}

Process::~Process() {
    if (!reap()) {
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        reap(0);
    }
    for (const int descriptor : {ended_, descriptors_[0], descriptors_[1], descriptors_[2]}) {
        if (descriptor >= 0) ::close(descriptor);
    }
}

// Feeds the input and collects both outputs until done, true, or the limit passes, false.
bool Process::pump(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    std::vector<char> block(65536);
    while (!done()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        pollfd waits[] = {{descriptors_[0], POLLOUT, 0},
                          {descriptors_[1], POLLIN, 0},
                          {descriptors_[2], POLLIN, 0},
                          {reaped_ ? -1 : ended_, POLLIN, 0}};
        if (::poll(waits, 4, static_cast<int>(std::max(left, 0ms).count())) == 0) return false;
        for (std::size_t i = 0; i < 3; ++i) {
            if (waits[i].revents == 0) continue;
            std::string& text = texts_[i];
            const ssize_t count = i == 0 ? ::write(descriptors_[0], &text[fed_], text.size() - fed_)
                                         : ::read(descriptors_[i], block.data(), block.size());
            if (count > 0 && i == 0) fed_ += static_cast<std::size_t>(count);
            if (count > 0 && i != 0) text.append(block.data(), static_cast<std::size_t>(count));
            if (count > 0 && (i != 0 || fed_ < text.size())) continue;
            if (count < 0 && errno == EAGAIN) continue;
            ::close(std::exchange(descriptors_[i], -1));
        }
    }
    return true;
}

bool Process::reap(int options) {
    if (!reaped_) reaped_ = ::waitpid(pid_, &status_, options) == pid_;
    return reaped_;
}

void Process::kill(int signal) {
    if (!reap()) ::kill(pid_, signal);
}

std::string Process::captured(std::size_t stream) {
    pump([] { return false; }, 0ms);
    return texts_[stream];
}

bool Process::waitFor(std::size_t stream, const std::string& text, std::chrono::milliseconds limit) {
    const auto found = [&] { return texts_[stream].find(text) != std::string::npos; };
    pump([&] { return found() || descriptors_[stream] < 0; }, limit);
    return found();
}

bool Process::waitForOut(const std::string& text, std::chrono::milliseconds limit) {
    return waitFor(1, text, limit);
}

bool Process::waitForErr(const std::string& text, std::chrono::milliseconds limit) {
    return waitFor(2, text, limit);
}

Outcome Process::wait(std::chrono::milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    Outcome outcome;
    outcome.endedByItself = pump([this] { return reap(); }, limit);
    if (!outcome.endedByItself) {
        ::kill(pid_, SIGKILL);
        reap(0);
    }
    // What the child wrote is in the pipes; a process that it left behind may still hold them open.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pump([this] { return descriptors_[1] < 0 && descriptors_[2] < 0; }, std::max(left, 100ms));
    ::kill(-pid_, SIGKILL);
    if (WIFEXITED(status_)) outcome.exitStatus = WEXITSTATUS(status_);
    if (WIFSIGNALED(status_)) outcome.signal = WTERMSIG(status_);
    outcome.out = texts_[1];
    outcome.err = texts_[2];
    return outcome;
}

Outcome run(Command command, std::chrono::milliseconds limit) {
    return Process(std::move(command)).wait(limit);
}

}  // namespace support
