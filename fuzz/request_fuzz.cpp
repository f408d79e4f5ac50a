// The way of a request: environment and standard input, as a web server gives them to the gateway, into the
// message for the application server.
//
// Input: the environment's variables, each with a zero byte after it; one more zero byte; standard input.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "Fuzz.h"
#include "cgi/ZorbiCGI.h"
#include "support/Wire.h"

namespace {

namespace wire = support::wire;

constexpr long long kLongestBody = 65536;  // the gateway believes a web server's length, a target does not
constexpr char kProgram[] = "/cgi-bin/shop";

class Client : public fuzz::Client {
  public:
    std::string sent;

    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override {
        sent.append(static_cast<const char*>(src), len);
        return len;
    }
};

// An environment in place of the process's own.
class Environment {
  public:
    // Takes the variables from the front of the text, up to an empty one.
    explicit Environment(std::string& text) : text_(text) {
        std::size_t at = 0;
        while (text_.c_str()[at] != 0) {
            pointers_.push_back(&text_[at]);
            at = std::min(at + std::strlen(&text_[at]) + 1, text_.size());
        }
        text.erase(0, at + 1);
        pointers_.push_back(nullptr);
        environ = pointers_.data();
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { environ = own_; }

    static std::string valueOf(const std::string& name) {
        const char* value = std::getenv(name.c_str());
        return value != nullptr ? value : "";
    }

  private:
    std::string text_;
    std::vector<char*> pointers_;
    char** const own_ = environ;
};

// What the gateway is to make of it.
wire::Request expectedRequest(const std::string& body) {
    wire::Request request;
    for (const std::string& name : wire::kParameters)
        request[name] = Environment::valueOf(name);
    if (std::getenv("CONTENT_LENGTH") == nullptr) request["CONTENT_LENGTH"] = "0";
    request["COMMANDLINE"] = kProgram;
    request["REMOTE_PASSWD"] = request["FULLHEADER"] = "";  // these do not travel
    std::string& cookies = request["HTTP_COOKIE"];
    cookies += cookies.empty() ? "VelartoClient=shop" : "; VelartoClient=shop";
    request.post = body;
    struct stat status {};
    const std::string path = request["PATH_TRANSLATED"];
    if (!path.empty() && stat(path.c_str(), &status) == 0)
        request.fileTime = static_cast<std::uint32_t>(status.st_mtime);
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile standardInput(STDIN_FILENO);
    static ve_hclient_t* const connection = VeClientCreateConnection(0);

    std::string input(reinterpret_cast<const char*>(data), size);
    const Environment environment(input);
    const long long length = std::strtoll(Environment::valueOf("CONTENT_LENGTH").c_str(), nullptr, 10);
    if (length > kLongestBody && length <= 0xFFFFFFFF) return 0;
    standardInput.write(input);

    ve_hrequest_t* handle = PrepareVelartoRequest(connection, kProgram);
    const bool isWhole = length >= 0 && static_cast<unsigned long long>(length) <= input.size();
    assert((handle != nullptr) == isWhole);
    if (handle == nullptr) return 0;

    Client client;
    client.setClientName("shop");
    const bool sent = client.SendQuilRequest(TQuilRequest::CastHandleToQuilRequest(handle));
    VeClientFreeRequest(connection, handle);
    const std::string body = input.substr(0, static_cast<std::size_t>(length));
    assert(sent && client.sent == wire::encode(expectedRequest(body)));
    return 0;
}
