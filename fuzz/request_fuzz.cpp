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

// Takes the variables from the front of the text, up to an empty one, and makes them the environment.
void takeEnvironment(std::string& text) {
    static auto& variables = *new std::string;
    static auto& pointers = *new std::vector<char*>;
    variables = text;
    pointers.clear();
    std::size_t at = 0;
    while (variables.c_str()[at] != 0) {
        pointers.push_back(&variables[at]);
        at = std::min(at + std::strlen(&variables[at]) + 1, variables.size());
    }
    pointers.push_back(nullptr);
    environ = pointers.data();
    text.erase(0, at + 1);
}

std::string valueOf(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? value : "";
}

// What the gateway is to make of it.
wire::Request expectedRequest(const std::string& body) {
    wire::Request request;
    for (const std::string& name : wire::kParameters)
        request[name] = valueOf(name);
    if (std::getenv("CONTENT_LENGTH") == nullptr) request["CONTENT_LENGTH"] = "0";
    request["COMMANDLINE"] = kProgram;
    request["REMOTE_PASSWD"] = request["FULLHEADER"] = "";  // these do not travel
    std::string& cookies = request["HTTP_COOKIE"];
    cookies += cookies.empty() ? "VelartoClient=shop" : "; VelartoClient=shop";
    request.post = body;
    struct stat status {};
    if (stat(request["PATH_TRANSLATED"].c_str(), &status) == 0)
        request.fileTime = static_cast<std::uint32_t>(status.st_mtime);
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile standardInput(STDIN_FILENO);
    static ve_hclient_t* const connection = VeClientCreateConnection(0);

    std::string input(reinterpret_cast<const char*>(data), size);
    takeEnvironment(input);
    const long long length = std::strtoll(valueOf("CONTENT_LENGTH").c_str(), nullptr, 10);
    if (length > kLongestBody && length <= 0xFFFFFFFF) return 0;
    standardInput.write(input);

    ve_hrequest_t* handle = PrepareVelartoRequest(connection, kProgram);
    const bool isWhole = length >= 0 && static_cast<unsigned long long>(length) <= input.size();
    assert((handle != nullptr) == isWhole);
    if (handle == nullptr) return 0;

    fuzz::Client client;
    client.setClientName("shop");
    const bool sent = client.SendQuilRequest(TQuilRequest::CastHandleToQuilRequest(handle));
    VeClientFreeRequest(connection, handle);
    const std::string body = input.substr(0, static_cast<std::size_t>(length));
    assert(sent && client.written == wire::encode(expectedRequest(body)));
    return 0;
}
