// Measures programs against one another: for each case of a plan, every contender runs once a round, in
// rotating order, so that whatever else the machine does meets all of them alike.
//
// usage: velarto-compare CSV <PLAN
//
// The plan, one statement a line, words separated by blanks:
//     yardstick NAME...                           contenders that the others are set in relation to
//     contender NAME PROGRAM [ARGUMENT...]        all must answer a case with the same body
//     mute NAME PROGRAM [ARGUMENT...]             a contender that answers nothing
//     case NAME ROUNDS INPUT [VARIABLE=VALUE...]  INPUT bytes of standard input; the variables are added to
//                                                 the environment of this program
// A table goes to standard output; the same with more digits, and with the mean time, to the file CSV. Time
// is that from before the start to the end of both output and process, CPU that of user and system. The peak
// of memory and the number of system calls come from one more run under ptrace. A run that fails is repeated,
// and counted; contenders that fail too often end the comparison.
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <numeric>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Words = std::vector<std::string>;
using Consumer = std::function<void(std::string_view)>;

struct Contender {
    std::string name;
    Words command;
    bool isMute;
};

struct Case {
    std::string name;
    std::size_t rounds;
    std::size_t inputSize;
    Words environment;
};

struct Plan {
    std::vector<std::string> yardsticks;
    std::vector<Contender> contenders;
    std::vector<Case> cases;
};

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

[[noreturn]] void failCall(const std::string& call) {
    fail(call + ": " + std::strerror(errno));
}

// ---- The plan ---------------------------------------------------------------------------------------------

Plan readPlan(std::istream& in) {
    Plan plan;
    for (std::string line; std::getline(in, line);) {
        std::istringstream stream(line);
        std::string keyword;
        std::string name;
        if (!(stream >> keyword)) continue;
        const auto rest = [&stream] {
            Words words;
            for (std::string word; stream >> word;)
                words.push_back(word);
            return words;
        };
        if (keyword == "yardstick") {
            plan.yardsticks = rest();
        } else if ((keyword == "contender" || keyword == "mute") && stream >> name) {
            plan.contenders.push_back({name, rest(), keyword == "mute"});
            if (plan.contenders.back().command.empty()) fail("no program in the plan: " + line);
        } else if (keyword == "case" && stream >> name) {
            Case next{name, 0, 0, {}};
            if (!(stream >> next.rounds >> next.inputSize) || next.rounds == 0) {
                fail("no numbers in the plan: " + line);
            }
            next.environment = rest();
            plan.cases.push_back(next);
        } else {
            fail("not understood in the plan: " + line);
        }
    }
    for (const std::string& yardstick : plan.yardsticks) {
        const auto isIt = [&yardstick](const Contender& contender) { return contender.name == yardstick; };
        if (std::none_of(plan.contenders.begin(), plan.contenders.end(), isIt)) {
            fail("the yardstick is no contender: " + yardstick);
        }
    }
    return plan;
}

// ---- Running a program ------------------------------------------------------------------------------------

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }
    int get() const { return number_; }
    void reset() {
        if (number_ >= 0) close(number_);
        number_ = -1;
    }

  private:
    int number_;
};

// A file of repeatable bytes; every open of its path reads from the start.
class InputFile {
  public:
    explicit InputFile(std::size_t size) : file_(memfd_create("input", MFD_CLOEXEC)) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>('a' + i % 23);
        for (std::string_view rest = bytes; !rest.empty();) {
            const ssize_t n = write(file_.get(), rest.data(), rest.size());
            if (n <= 0) failCall("input file");
            rest.remove_prefix(static_cast<std::size_t>(n));
        }
        path_ = "/proc/self/fd/" + std::to_string(file_.get());
    }
    const char* path() const { return path_.c_str(); }

  private:
    Descriptor file_;
    std::string path_;
};

class Pipe {
  public:
    Pipe() : Pipe(open()) {}

    // Hands everything to the consumer until all writers have ended.
    void drain(const Consumer& consume) {
        static char buffer[64 * 1024];
        writer.reset();
        ssize_t n;
        while ((n = read(reader.get(), buffer, sizeof buffer)) > 0)
            consume({buffer, static_cast<std::size_t>(n)});
        if (n < 0) failCall("read");
    }

    Descriptor reader;
    Descriptor writer;

  private:
    struct Ends {
        int ends[2];
    };
    explicit Pipe(const Ends& pipe) : reader(pipe.ends[0]), writer(pipe.ends[1]) {}
    static Ends open() {
        Ends pipe{};
        if (pipe2(pipe.ends, O_CLOEXEC) != 0) failCall("pipe");
        return pipe;
    }
};

std::vector<char*> pointersTo(Words& words) {
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

// One case's environment, and its standard input.
class Scene {
  public:
    explicit Scene(const Case& measured) : input_(measured.inputSize), environment_(measured.environment) {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string_view text = *variable;
            const std::string_view name = text.substr(0, text.find('=') + 1);
            const auto sets = [name](const std::string& own) {
                return own.compare(0, name.size(), name) == 0;
            };
            const bool isReplaced =
                std::any_of(measured.environment.begin(), measured.environment.end(), sets);
            if (!isReplaced) environment_.emplace_back(text);
        }
        pointers_ = pointersTo(environment_);
    }
    const char* inputPath() const { return input_.path(); }
    char* const* environment() const { return pointers_.data(); }

  private:
    InputFile input_;
    Words environment_;
    std::vector<char*> pointers_;
};

struct Cost {
    double time;  // microseconds, like the next
    double cpu;
};

double microseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

void checkEnd(const Contender& contender, int status) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    fail(contender.name + (WIFEXITED(status) ? " ends with status " + std::to_string(WEXITSTATUS(status))
                                             : " is ended by signal " + std::to_string(WTERMSIG(status))));
}

Cost run(Contender& contender, const Scene& scene, const Consumer& consume) {
    Pipe output;
    const std::vector<char*> arguments = pointersTo(contender.command);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, scene.inputPath(), O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output.writer.get(), STDOUT_FILENO);

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    pid_t process = 0;
    errno = posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), scene.environment());
    if (errno != 0) failCall(contender.command[0]);
    output.drain(consume);
    int status = 0;
    rusage usage{};
    wait4(process, &status, 0, &usage);
    const std::chrono::duration<double, std::micro> time = Clock::now() - start;

    posix_spawn_file_actions_destroy(&actions);
    checkEnd(contender, status);
    return {time.count(), microseconds(usage.ru_utime) + microseconds(usage.ru_stime)};
}

// ---- What only a tracer sees ------------------------------------------------------------------------------

struct Trace {
    long peakKilobytes = 0;
    long systemCalls = 0;
};

// A process's peak of memory; the parent's would show in its own rusage.
long peakOf(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string word; status >> word;) {
        long kilobytes = 0;
        if (word == "VmHWM:" && status >> kilobytes) return kilobytes;
    }
    return 0;
}

bool entersSystemCall(pid_t process) {
    __ptrace_syscall_info info{};
    return ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info) > 0 &&
           info.op == PTRACE_SYSCALL_INFO_ENTRY;
}

// Follows a process that has stopped behind its exec to its end; its status.
int follow(pid_t process, Trace& trace) {
    int status = 0;
    int signalNumber = 0;
    ptrace(PTRACE_SETOPTIONS, process, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
    for (;;) {
        ptrace(PTRACE_SYSCALL, process, nullptr, signalNumber);
        if (waitpid(process, &status, 0) < 0) failCall("waitpid");
        if (!WIFSTOPPED(status)) return status;
        signalNumber = 0;
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
            if (entersSystemCall(process)) ++trace.systemCalls;
        } else if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8)) {
            trace.peakKilobytes = peakOf(process);
        } else {
            signalNumber = WSTOPSIG(status);
        }
    }
}

[[noreturn]] void becomeTraced(char* const* arguments, const Scene& scene, int output) {
    const int input = open(scene.inputPath(), O_RDONLY);
    if (input >= 0 && dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
        close(input) == 0 && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0) {
        execve(arguments[0], arguments, scene.environment());
    }
    _exit(127);
}

Trace traceRun(Contender& contender, const Scene& scene) {
    Pipe output;
    const std::vector<char*> arguments = pointersTo(contender.command);
    const pid_t process = fork();
    if (process < 0) failCall("fork");
    if (process == 0) becomeTraced(arguments.data(), scene, output.writer.get());

    Trace trace;
    std::thread drain([&output] { output.drain([](std::string_view) {}); });
    int status = 0;
    waitpid(process, &status, 0);
    if (WIFSTOPPED(status)) status = follow(process, trace);
    drain.join();
    checkEnd(contender, status);
    return trace;
}

// ---- Measuring a case -------------------------------------------------------------------------------------

struct Result {
    Contender& contender;
    std::size_t outputSize = 0;
    std::vector<Cost> costs;
    Trace trace;
    int failures = 0;
};

// Header fields may differ, the body may not.
std::string_view bodyOf(std::string_view output) {
    for (const std::string_view emptyLine : {"\r\n\r\n", "\n\n"}) {
        const std::size_t at = output.find(emptyLine);
        if (at != std::string_view::npos) return output.substr(at + emptyLine.size());
    }
    fail("output without an empty line");
}

class Measurement {
  public:
    Measurement(std::vector<Contender>& contenders, const Case& measured)
        : case_(measured), scene_(measured) {
        for (Contender& contender : contenders)
            results_.push_back({contender, 0, {}, {}, 0});
    }

    std::vector<Result> measure() {
        const std::size_t warmUps = case_.rounds / 10 + 1;
        for (std::size_t round = 0; round < warmUps; ++round)
            inRotation(round, [this](Result& result) { warmUp(result); });
        for (std::size_t round = 0; round < case_.rounds; ++round)
            inRotation(round, [this](Result& result) { time(result); });
        inRotation(0, [this](Result& result) { result.trace = traceRun(result.contender, scene_); });
        return std::move(results_);
    }

  private:
    static constexpr int kMostFailures = 5;

    template <typename Step>
    void inRotation(std::size_t round, Step step) {
        for (std::size_t i = 0; i < results_.size(); ++i)
            untilDone(results_[(round + i) % results_.size()], step);
    }

    template <typename Step>
    void untilDone(Result& result, Step step) {
        for (;;) {
            try {
                step(result);
                return;
            } catch (const std::runtime_error& error) {
                if (++result.failures > kMostFailures) throw;
                std::cerr << case_.name << ": " << error.what() << "; once more\n";
            }
        }
    }

    void warmUp(Result& result) {
        std::string output;
        run(result.contender, scene_, [&output](std::string_view part) { output += part; });
        result.outputSize = output.size();
        if (result.contender.isMute) {
            if (!output.empty()) fail(result.contender.name + " answers");
            return;
        }
        const std::string_view body = bodyOf(output);
        const Body seen{body.size(), std::hash<std::string_view>{}(body)};
        if (!body_) body_ = seen;
        if (body_->size != seen.size || body_->hash != seen.hash) {
            fail(result.contender.name + " answers with another body");
        }
    }

    void time(Result& result) {
        std::size_t size = 0;
        const Cost cost =
            run(result.contender, scene_, [&size](std::string_view part) { size += part.size(); });
        if (size != result.outputSize) fail(result.contender.name + " answers with another length");
        result.costs.push_back(cost);
    }

    struct Body {
        std::size_t size;
        std::size_t hash;
    };

    const Case& case_;
    Scene scene_;
    std::optional<Body> body_;
    std::vector<Result> results_;
};

// ---- The report -------------------------------------------------------------------------------------------

// The smallest value that so great a share of all does not exceed.
double quantile(const std::vector<Cost>& costs, double Cost::*part, double share) {
    std::vector<double> values(costs.size());
    std::transform(costs.begin(), costs.end(), values.begin(),
                   [part](const Cost& cost) { return cost.*part; });
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(share * static_cast<double>(values.size()));
    return values[static_cast<std::size_t>(rank) - 1];
}

double mean(const std::vector<Cost>& costs) {
    const auto add = [](double sum, const Cost& cost) { return sum + cost.time; };
    return std::accumulate(costs.begin(), costs.end(), 0.0, add) / static_cast<double>(costs.size());
}

class Report {
  public:
    Report(const Plan& plan, const std::string& csvPath) : yardsticks_(plan.yardsticks), csv_(csvPath) {
        if (!csv_) failCall(csvPath);
        csv_ << "case,contender,rounds,median_us,mean_us,p99_us,cpu_us,peak_kb,system_calls,failures";
        for (const std::string& yardstick : yardsticks_)
            csv_ << ",time/" << yardstick << ",cpu/" << yardstick;
        csv_ << std::endl;
        for (const Contender& contender : plan.contenders)
            nameWidth_ = std::max(nameWidth_, static_cast<int>(contender.name.size()));
    }

    void add(const Case& measured, const std::vector<Result>& results) {
        std::printf("%s, %zu rounds\n", measured.name.c_str(), measured.rounds);
        std::printf("  %-*s %10s %10s %10s %8s %8s %6s", nameWidth_, "", "median ms", "p99 ms", "CPU ms",
                    "peak KB", "calls", "failed");
        for (const std::string& yardstick : yardsticks_) {
            for (const char* quantity : {"time/", "CPU/"})
                std::printf("  %*s", ratioWidth(yardstick), (quantity + yardstick).c_str());
        }
        std::printf("\n");
        std::map<std::string, Cost> medians;
        for (const Result& result : results) {
            medians[result.contender.name] = {quantile(result.costs, &Cost::time, 0.5),
                                              quantile(result.costs, &Cost::cpu, 0.5)};
        }
        for (const Result& result : results)
            addLine(measured, result, medians);
        std::printf("\n");
        std::fflush(stdout);
    }

  private:
    static int ratioWidth(const std::string& yardstick) {
        return static_cast<int>(std::strlen("time/") + yardstick.size());
    }

    void addLine(const Case& measured, const Result& result, const std::map<std::string, Cost>& medians) {
        const std::string& name = result.contender.name;
        const Cost median = medians.at(name);
        const double p99 = quantile(result.costs, &Cost::time, 0.99);
        std::printf("  %-*s %10.3f %10.3f %10.3f %8ld %8ld %6d", nameWidth_, name.c_str(), median.time / 1000,
                    p99 / 1000, median.cpu / 1000, result.trace.peakKilobytes, result.trace.systemCalls,
                    result.failures);
        csv_ << measured.name << ',' << name << ',' << measured.rounds << ',' << median.time << ','
             << mean(result.costs) << ',' << p99 << ',' << median.cpu << ',' << result.trace.peakKilobytes
             << ',' << result.trace.systemCalls << ',' << result.failures;
        for (const std::string& yardstick : yardsticks_) {
            const Cost base = medians.at(yardstick);
            const int width = ratioWidth(yardstick);
            std::printf("  %*.2f  %*.2f", width, median.time / base.time, width, median.cpu / base.cpu);
            csv_ << ',' << median.time / base.time << ',' << median.cpu / base.cpu;
        }
        std::printf("\n");
        csv_ << std::endl;
    }

    std::vector<std::string> yardsticks_;
    std::ofstream csv_;
    int nameWidth_ = 0;
};

void compare(const std::string& csvPath) {
    Plan plan = readPlan(std::cin);
    Report report(plan, csvPath);
    for (const Case& measured : plan.cases)
        report.add(measured, Measurement(plan.contenders, measured).measure());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CSV <PLAN\n", argv[0]);
        return 1;
    }
    try {
        compare(argv[1]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
