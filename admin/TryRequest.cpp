#include "TryRequest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Command.h"
#include "common/Text.h"
#include "platform/osfile_impl.h"

namespace {

constexpr std::uint32_t kLongestBody = 0xFFFFF000;  // bytes; whole pages below the 4 GiB of a length
constexpr std::uint32_t kFirstRoom = 65536;         // bytes

const std::string& checked(const std::string& text, const char* what) {
    if (hasControlCharacter(text))
        throw Failure(std::string(what) + " has a control character: '" + shown(text) + "'");
    return text;
}

bool isToken(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
    });
}

// Escapes become their bytes.
std::string decoded(const std::string& path) {
    std::string result;
    for (std::size_t i = 0; i < path.size(); ++i) {
        char c = path[i];
        if (c == '%') {
            const std::string digits = path.substr(i + 1, 2);
            const auto code = digits.size() == 2 ? parseNumber("0x" + digits) : std::nullopt;
            if (!code || *code == 0) throw Failure("'%" + shown(digits) + "' in the path is no character");
            c = static_cast<char>(*code);
            i += 2;
        }
        result += c;
    }
    return result;
}

void setPath(const std::string& urlPath, const std::optional<std::string>& documentRoot,
             Variables& variables) {
    const std::size_t mark = std::min(checked(urlPath, "the path").find('?'), urlPath.size());
    variables["QUERY_STRING"] = urlPath.substr(std::min(mark + 1, urlPath.size()));
    if (mark == 0) return;
    if (urlPath[0] != '/') throw Failure("the path begins with '/' or '?', not as '" + urlPath + "'");
    // Dot segments and repeated slashes go, as in a web server.
    const std::string path =
        std::filesystem::path(decoded(urlPath.substr(0, mark))).lexically_normal().string();
    variables["PATH_INFO"] = path;
    if (!documentRoot) return;
    const std::string root = std::filesystem::absolute(*documentRoot).lexically_normal().string();
    variables["PATH_TRANSLATED"] = root.substr(0, root.find_last_not_of('/') + 1) + path;
}

void setHeader(const std::string& header, Variables& variables) {
    const std::size_t colon = checked(header, "a header").find(':');
    if (colon == std::string::npos) throw Failure("a header is NAME:VALUE, not '" + header + "'");
    std::string name = header.substr(0, colon);
    if (!isToken(name)) throw Failure("'" + name + "' is no name of a header");
    const std::size_t first = std::min(header.find_first_not_of(' ', colon + 1), header.size());
    const std::string value = header.substr(first, header.find_last_not_of(' ') + 1 - first);

    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return c == '-' ? '_' : static_cast<char>(std::toupper(c)); });
    if (name == "CONTENT_LENGTH") throw Failure("the length is that of the body; no header tells it");
    if (name != "CONTENT_TYPE") name.insert(0, "HTTP_");
    const auto [variable, isFirst] = variables.emplace(name, value);
    if (!isFirst) variable->second += (name == "HTTP_COOKIE" ? "; " : ", ") + value;
}

}  // namespace

Variables variablesOf(const TryOptions& options) {
    Variables variables;
    for (const std::string& header : options.headers)
        setHeader(header, variables);
    variables.emplace("HTTP_ACCEPT", "*/*");
    variables.emplace("HTTP_USER_AGENT", "velarto-config");
    if (options.data) variables.emplace("CONTENT_TYPE", "application/x-www-form-urlencoded");

    const std::string method = options.method.value_or(options.data ? "POST" : "GET");
    if (!isToken(method)) throw Failure("'" + shown(method) + "' is no method");
    variables["REQUEST_METHOD"] = method;
    variables["SCRIPT_NAME"] = "/cgi-bin/" + options.client;
    variables["SERVER_NAME"] = "localhost";
    variables["SERVER_PORT"] = "80";
    variables["REMOTE_ADDR"] = "127.0.0.1";
    setPath(options.urlPath, options.documentRoot, variables);
    return variables;
}

void readBody(const std::string& file, CData& body) {
    const auto fail = [&](const char* reason) { throw Failure("the body " + shown(file) + ": " + reason); };
    const Descriptor input(file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (input.get() == -1 || fstat(input.get(), &status) != 0) fail(std::strerror(errno));
    if (status.st_size >= kLongestBody) fail("4 GiB are too long");

    std::uint32_t size = 0;
    std::uint32_t room = std::max(static_cast<std::uint32_t>(status.st_size) + 1, kFirstRoom);
    for (;;) {
        if (!body.SetBufferSize(room)) fail("there is not enough memory for it");
        const std::int64_t count = ReadOSFile(input.get(), body.GetBuffer() + size, room - size);
        if (count < 0) fail(std::strerror(errno));
        size += static_cast<std::uint32_t>(count);
        if (size < room) break;
        if (room == kLongestBody) fail("4 GiB are too long");
        room = room > kLongestBody / 2 ? kLongestBody : 2 * room;
    }
    body.SetUsableDataSize(size);
}
