// Benchmarks of the gateway's pieces: marshalling, configuration, header check. Compare figures of one run
// with one another; machines are noisy.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

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

}  // namespace
