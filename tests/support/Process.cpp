#include "support/Process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace support {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char* step) {
    throw std::system_error(errno, std::generic_category(), step);
}

// A descriptor above the standard three, closed on exec, owned until released.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int low) : value_(::fcntl(low, F_DUPFD_CLOEXEC, 3)) {
        ::close(low);
        if (value_ < 0) fail("fcntl");
    }
    Descriptor(Descriptor&& other) noexcept : value_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~Descriptor() {
        if (value_ >= 0) ::close(value_);
    }
    int get() const { return value_; }
    int release() { return std::exchange(value_, -1); }

  private:
    int value_ = -1;
};

struct Pipe {
    Descriptor reader;
    Descriptor writer;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

struct Ends {
    Descriptor child;  // none: closed in the child
    Descriptor parent;
};

Ends openStream(Stream stream, bool isInput) {
    Ends ends;
    if (stream == Stream::Null) {
        const int null = ::open("/dev/null", (isInput ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
        if (null < 0) fail("/dev/null");
        ends.child = Descriptor(null);
    } else if (stream != Stream::Closed) {
        Pipe pipe = makePipe();
        ends.child = std::move(isInput ? pipe.reader : pipe.writer);
        ends.parent = std::move(isInput ? pipe.writer : pipe.reader);
    }
    return ends;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// In the child, between fork and exec: system calls only.
struct Child {
    const Command& command;
    char* const* arguments;
    char* const* environment;
    std::array<int, 3> descriptors;
    int report;

    [[noreturn]] void exec() const {
        prepare();
        ::execve(command.program.c_str(), arguments, environment);
        giveUp();
    }

  private:
    [[noreturn]] void giveUp() const {
        const int error = errno;
        const ssize_t written = ::write(report, &error, sizeof error);
        ::_exit(written == sizeof error ? 126 : 127);
    }

    void prepare() const {
        ::setpgid(0, 0);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int signal = 1; signal < SIGRTMIN; ++signal)
            ::signal(signal, SIG_DFL);
        for (const int signal : command.ignoredSignals)
            ::signal(signal, SIG_IGN);
        for (int standard = 0; standard < 3; ++standard) {
            const int given = descriptors[static_cast<std::size_t>(standard)];
            if (given < 0) {
                ::close(standard);
            } else if (::dup2(given, standard) < 0) {
                giveUp();
            }
        }
        // Whatever else this process holds open is none of the child's business.
        ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        if (!command.directory.empty() && ::chdir(command.directory.c_str()) != 0) giveUp();
        if (command.user != static_cast<uid_t>(-1) &&
            (::setgid(static_cast<gid_t>(command.user)) != 0 || ::setuid(command.user) != 0)) {
            giveUp();
        }
        for (const auto& [resource, value] : command.limits) {
            const rlimit limit = {value, value};
            // The C library takes the resource as an enumeration of its own, in C++ only.
            if (::setrlimit(static_cast<__rlimit_resource>(resource), &limit) != 0) giveUp();
        }
    }
};

// The error number that kept the child from running the program; 0 when it runs.
int execError(int reader) {
    int error = 0;
    ssize_t got;
    do {
        got = ::read(reader, &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    return got == sizeof error ? error : 0;
}

}  // namespace

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
        result.emplace_back(*entry);
    return result;
}

Process::Process(Command command) : input_(std::move(command.input)) {
    std::array<Ends, 3> streams = {openStream(command.in, true), openStream(command.out, false),
                                   openStream(command.err, false)};
    Pipe report = makePipe();
    Pipe wakeUp = makePipe();
    const std::vector<char*> arguments = pointers(command.arguments);
    const std::vector<char*> environment = pointers(command.environment);
    const Child child = {command,
                         arguments.data(),
                         environment.data(),
                         {streams[0].child.get(), streams[1].child.get(), streams[2].child.get()},
                         report.writer.get()};
    pid_ = ::fork();
    if (pid_ < 0) fail("fork");
    if (pid_ == 0) child.exec();

    for (Ends& ends : streams)
        ends.child = Descriptor();
    report.writer = Descriptor();
    if (const int error = execError(report.reader.get())) {
        ::waitpid(pid_, nullptr, 0);
        throw std::system_error(error, std::generic_category(), "cannot run " + command.program);
    }
    inputDescriptor_ = streams[0].parent.release();
    if (inputDescriptor_ >= 0) ::fcntl(inputDescriptor_, F_SETFL, O_NONBLOCK);
    out_.descriptor = streams[1].parent.release();
    err_.descriptor = streams[2].parent.release();
    wakeUp_[0] = wakeUp.reader.release();
    wakeUp_[1] = wakeUp.writer.release();
    pump_ = std::thread(&Process::pump, this);
}

Process::~Process() {
    if (!reap()) {
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    stopPumping();
}

// Feeds the input and collects both outputs until all three are done or a byte on the wake-up pipe says stop.
void Process::pump() {
    // Writing to a child that has gone is an error here, not a signal.
    sigset_t brokenPipe;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);

    const auto close = [](int& descriptor) { ::close(std::exchange(descriptor, -1)); };
    std::size_t fed = 0;
    std::vector<char> block(65536);
    while (inputDescriptor_ >= 0 || out_.descriptor >= 0 || err_.descriptor >= 0) {
        pollfd waits[] = {{inputDescriptor_, POLLOUT, 0},
                          {out_.descriptor, POLLIN, 0},
                          {err_.descriptor, POLLIN, 0},
                          {wakeUp_[0], POLLIN, 0}};
        if (::poll(waits, 4, -1) < 0) continue;
        if (waits[3].revents != 0) break;
        if (waits[0].revents != 0) {
            const ssize_t count = ::write(inputDescriptor_, input_.data() + fed, input_.size() - fed);
            if (count > 0) fed += static_cast<std::size_t>(count);
            const bool wait = count < 0 && (errno == EAGAIN || errno == EINTR);
            if (fed == input_.size() || (count < 0 && !wait)) close(inputDescriptor_);
        }
        for (Capture* capture : {&out_, &err_}) {
            if (waits[capture == &out_ ? 1 : 2].revents == 0) continue;
            const ssize_t count = ::read(capture->descriptor, block.data(), block.size());
            if (count < 0 && errno == EINTR) continue;
            const std::lock_guard<std::mutex> guard(mutex_);
            if (count > 0) {
                capture->text.append(block.data(), static_cast<std::size_t>(count));
            } else {
                close(capture->descriptor);
            }
            changed_.notify_all();
        }
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    for (int* descriptor : {&inputDescriptor_, &out_.descriptor, &err_.descriptor}) {
        if (*descriptor >= 0) close(*descriptor);
    }
    changed_.notify_all();
}

void Process::stopPumping() {
    if (!pump_.joinable()) return;
    const char stop = 0;
    if (::write(wakeUp_[1], &stop, 1) == 1) pump_.join();
    ::close(wakeUp_[0]);
    ::close(wakeUp_[1]);
}

bool Process::reap() {
    if (!reaped_) reaped_ = ::waitpid(pid_, &status_, WNOHANG) == pid_;
    return reaped_;
}

bool Process::running() {
    return !reap();
}

void Process::kill(int signal) {
    if (!reap()) ::kill(pid_, signal);
}

std::string Process::out() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return out_.text;
}

std::string Process::err() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return err_.text;
}

bool Process::waitForOut(const std::string& text, std::chrono::milliseconds limit) {
    return waitFor(out_, text, limit);
}

bool Process::waitForErr(const std::string& text, std::chrono::milliseconds limit) {
    return waitFor(err_, text, limit);
}

bool Process::waitFor(const Capture& capture, const std::string& text, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(mutex_);
    const auto found = [&] { return capture.text.find(text) != std::string::npos; };
    changed_.wait_for(guard, limit, [&] { return found() || capture.descriptor < 0; });
    return found();
}

Outcome Process::wait(std::chrono::milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    Outcome outcome;
    while (!(outcome.endedByItself = reap()) && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (!outcome.endedByItself) {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
        }
        reaped_ = true;
    }
    {
        // What the child wrote is in the pipes; a process that it left behind may still hold them open.
        std::unique_lock<std::mutex> guard(mutex_);
        changed_.wait_until(guard, std::max(end, Clock::now() + std::chrono::milliseconds(100)),
                            [&] { return out_.descriptor < 0 && err_.descriptor < 0; });
    }
    ::kill(-pid_, SIGKILL);
    stopPumping();
    if (WIFEXITED(status_)) outcome.exitStatus = WEXITSTATUS(status_);
    if (WIFSIGNALED(status_)) outcome.signal = WTERMSIG(status_);
    outcome.out = out_.text;
    outcome.err = err_.text;
    return outcome;
}

Outcome run(Command command, std::chrono::milliseconds limit) {
    return Process(std::move(command)).wait(limit);
}

}  // namespace support
