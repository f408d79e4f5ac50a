// Benchmarks of the pieces (marshalling, configuration, header check) and of the whole process. Compare
// figures of one run with one another; machines are noisy.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "cgi/VeHttpResponse.h"
#include "config/ConfigFile.h"
#include "protocol/QuilTypes.h"
#include "wire/Drip.h"

namespace {

// A stream over a string that is read again and again.
class MemoryDrip : public Drip {
  public:
    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override {
        const std::size_t n = std::min<std::size_t>(len, bytes_.size() - position_);
        std::memcpy(dst, bytes_.data() + position_, n);
        position_ += n;
        return static_cast<std::uint32_t>(n);
    }
    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override {
        bytes_.append(static_cast<const char*>(src), len);
        return len;
    }
    std::uint32_t makeNetworkNumber(std::uint32_t value) const override { return htonl(value); }
    std::uint32_t makeHostNumber(std::uint32_t value) const override { return ntohl(value); }
    std::uint32_t SetReadWriteTimeout(std::uint32_t) override { return 0; }

    void rewind() { position_ = 0; }
    void clear() {
        bytes_.clear();
        position_ = 0;
    }

  private:
    std::string bytes_;
    std::size_t position_ = 0;
};

void marshallBody(Drip& drip, const CText& body) {
    drip.marshallHeader(QUIL_BODY_DATA, QUIL_PROTOCOL_VERSION);
    drip.marshallText(body);
    drip.marshallFooter();
}

void WriteBodyMessage(benchmark::State& state) {
    const CText body(std::string(static_cast<std::size_t>(state.range(0)), 'x').c_str());
    MemoryDrip drip;
    for (auto _ : state) {
        drip.clear();
        marshallBody(drip, body);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WriteBodyMessage)->Arg(1024)->Arg(32 * 1024);

void ReadBodyMessage(benchmark::State& state) {
    MemoryDrip drip;
    marshallBody(drip, CText(std::string(static_cast<std::size_t>(state.range(0)), 'x').c_str()));
    CText body;
    for (auto _ : state) {
        drip.rewind();
        std::uint32_t type = 0;
        std::uint32_t version = 0;
        if (!drip.unmarshallHeader(type, version) || !drip.unmarshallText(body) || !drip.unmarshallFooter()) {
            state.SkipWithError("message not read");
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReadBodyMessage)->Arg(1024)->Arg(32 * 1024);

class TemporaryFolder {
  public:
    TemporaryFolder() {
        char name[] = "/tmp/velarto-bench-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// A configuration of so many bytes at most, in sections of about 100 bytes.
std::string configurationOf(std::size_t bytes) {
    std::string directory = "[Velarto Client Definitions]\n";
    std::string sections;
    for (int i = 0;; ++i) {
        const std::string name = "client" + std::to_string(i);
        const std::string section = "\n[" + name + "]\nCLIENTIOTIMEOUT=30\nVELARTO_SERVER=127.0.0.1,18155\n";
        if (directory.size() + sections.size() + section.size() + name.size() + 2 > bytes) break;
        directory += name + "=\n";
        sections += section;
    }
    return directory + sections;
}

void ParseConfiguration(benchmark::State& state) {
    const TemporaryFolder folder;
    const std::string path = folder.path() + "/clients.ini";
    std::ofstream(path) << configurationOf(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        ConfigFile file(path.c_str(), "Velarto Client Definitions");
        if (!file.parseConfigFile()) state.SkipWithError("not parsed");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ParseConfiguration)->Arg(1024)->Arg(128 * 1024)->Unit(benchmark::kMicrosecond);

void CheckHeader(benchmark::State& state) {
    const bool parseFields = state.range(0) != 0;
    const char* header =
        "HTTP/1.0 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: 1024\r\n"
        "Cache-Control: no-store\r\nSet-Cookie: a=b; Path=/\r\n\r\n";
    for (auto _ : state) {
        void* response = VeHttpParseResponse(header, parseFields);
        benchmark::DoNotOptimize(response);
        VeHttpReleaseResponse(response);
    }
}
BENCHMARK(CheckHeader)->ArgName("fields")->Arg(0)->Arg(1);

// An application server that answers each connection with one small page and takes the acknowledgements as
// they come.
class PageServer {
  public:
    PageServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
        listen(listener_, 64);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~PageServer() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    int port() const { return port_; }

  private:
    static std::string message(char type, const std::string& text) {
        std::string bytes("QUIL\xFF\xFD\xFF\xFD\0\0\0", 11);
        bytes += type;
        if (type != QUIL_END) {
            const std::uint32_t length = htonl(static_cast<std::uint32_t>(text.size()));
            bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
            bytes += text;
        }
        return bytes + "END!";
    }

    void serve() const {
        const std::string answer =
            message(QUIL_HTTP_HEADER, "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n");
        const std::string rest = message(QUIL_BODY_DATA, std::string(1024, 'x'));
        const std::string end = message(QUIL_END, "");
        for (int peer; (peer = accept(listener_, nullptr, nullptr)) >= 0; close(peer)) {
            std::string request;
            char buffer[4096];
            while (request.size() < 4 || request.compare(request.size() - 4, 4, "END!") != 0) {
                const ssize_t n = read(peer, buffer, sizeof buffer);
                if (n <= 0) break;
                request.append(buffer, static_cast<std::size_t>(n));
            }
            for (const std::string* part : {&answer, &rest}) {
                if (write(peer, part->data(), part->size()) < 0 || recv(peer, buffer, 20, MSG_WAITALL) != 20)
                    break;
            }
            if (write(peer, end.data(), end.size()) < 0) continue;
            while (read(peer, buffer, sizeof buffer) > 0) {
            }
        }
    }

    int listener_;
    int port_ = 0;
    std::thread thread_;
};

// Runs a program with standard input and output at /dev/null; its exit status.
int runProgram(const char* path, const char* name, char* const environment[]) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    char* const argv[] = {const_cast<char*>(name), nullptr};
    pid_t pid = 0;
    int status = -1;
    if (posix_spawn(&pid, path, &actions, nullptr, argv, environment) == 0) waitpid(pid, &status, 0);
    posix_spawn_file_actions_destroy(&actions);
    return status;
}

void WholeProcess(benchmark::State& state, const char* program) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder.path() + "/configuration");
    const PageServer server;
    std::ofstream(folder.path() + "/configuration/clients.ini")
        << "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=127.0.0.1," << server.port()
        << "\n";
    std::string path = "VELARTO_PATH=" + folder.path();
    char method[] = "REQUEST_METHOD=GET";
    char* const environment[] = {path.data(), method, nullptr};
    for (auto _ : state) {
        if (runProgram(program, "shop", environment) != 0) state.SkipWithError("failed");
    }
}
BENCHMARK_CAPTURE(WholeProcess, no_op, NO_OP_PATH)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(WholeProcess, gateway, VELARTO_CGI_PATH)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
