#include "Trial.h"

#include "common/Text.h"
#include "protocol/ServerList.h"

namespace {

constexpr milliseconds kWatch(50);                              // for bytes that come too early
constexpr std::size_t kEverybodyTakes = std::size_t{64} << 10;  // bytes, and one more

milliseconds ofSeconds(double seconds) {
    return milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

}  // namespace

Trial::Trial(const Options& options) : options_(options) {
    const ServerEntry entry(options.server.c_str());
    CText address;
    if (Socket::castToIP(entry.host(), address, false) == nullptr) throw Unreachable("no such host");
    server_.address = address.GetTextEx();
    server_.port = static_cast<std::uint16_t>(parseNumber(entry.port()).value_or(0));
    server_.timeout = ofSeconds(options.timeout);
}

milliseconds Trial::pause() const {
    return ofSeconds(options_.pause);
}

Request Trial::request(const std::string& path) const {
    Request request;
    request[QUIL_PARAM_QUERY_STRING] = options_.query;
    request[QUIL_PARAM_PATH_INFO] = path;
    request[QUIL_PARAM_PATH_TRANSLATED] = "/srv/www" + path;
    request[QUIL_PARAM_REQUEST_METHOD] = "GET";
    request[QUIL_PARAM_REMOTE_ADDR] = "127.0.0.1";
    request[QUIL_PARAM_SERVER_NAME] = "localhost";
    request[QUIL_PARAM_SERVER_PORT] = "80";
    request[QUIL_PARAM_SCRIPT_NAME] = "/cgi-bin/conform";
    request[QUIL_PARAM_HTTP_USER_AGENT] = "velarto-conform";
    request[QUIL_PARAM_CONTENT_LENGTH] = "0";
    request[QUIL_PARAM_HTTP_COOKIE] = "VelartoClient=conform";
    request[QUIL_PARAM_COMMANDLINE] = "/srv/cgi/conform";
    request[QUIL_PARAM_HTTP_ACCEPT] = "*/*";
    return request;
}

Request Trial::post(const std::string& path, std::string body) const {
    Request request = this->request(path);
    request[QUIL_PARAM_REQUEST_METHOD] = "POST";
    request[QUIL_PARAM_CONTENT_TYPE] = "application/octet-stream";
    request[QUIL_PARAM_CONTENT_LENGTH] = std::to_string(body.size());
    request.body = std::move(body);
    return request;
}

Request Trial::document() const {
    Request request = this->request(options_.document);
    request.fileTime = 1577836800;  // 2020-01-01 00:00:00 UTC: there is one
    return request;
}

Answer Trial::converse(const Request& request, const Manner& manner) const {
    Conversation conversation(server_, manner);
    conversation.send(request.bytes());
    return conversation.complete();
}

Answer Trial::whole(const std::string& circumstances, Answer answer) {
    if (answer.fault) throw Broken(circumstances + ": " + answer.fault->what());
    return answer;
}

Answer Trial::wholeDocument(const std::string& circumstances, const Manner& manner) const {
    Answer answer = converse(document(), manner);
    if (!answer.fault && !answer.has(QUIL_FILE_REQUEST))
        throw Skipped("no file was asked for; --document names a page that does");
    return whole(circumstances, std::move(answer));
}

const Answer& Trial::plain() {
    if (!plain_) {
        Manner manner;
        manner.ponders = kWatch;
        const std::string bytes = request().bytes();
        Conversation conversation(server_, manner);
        conversation.send(bytes.substr(0, bytes.size() - 1));
        const bool isEarly = conversation.hasBytes(kWatch);
        conversation.send(bytes.substr(bytes.size() - 1));
        plain_ = conversation.complete();
        if (isEarly)
            plain_->fault = Broken("the server sends before the request's last byte", "whole-request");
    }
    return *plain_;
}

void Trial::expectAlive(const std::string& circumstances) const {
    wholeAnswer("the next request after " + circumstances, request());
}

void Trial::trySizes(const char* what, const std::vector<std::size_t>& sizes, const OfSize& answer) {
    for (const std::size_t size : sizes) {
        const std::string circumstances = format("%s of %zu bytes", what, size);
        Answer came = answer(size);
        const bool refused =
            came.fault && came.fault->rule() == std::string("end") && !came.has(QUIL_HTTP_HEADER);
        if (refused && size > kEverybodyTakes + 1)
            throw Skipped("closes on " + circumstances + ", which may be a limit of its own");
        whole(circumstances, std::move(came));
    }
}

std::string bytesOf(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    return bytes;
}

std::string messagesInside() {
    const std::string acknowledgement = Frame{QUIL_HTTP_HEADER, number(1)}.bytes();
    return std::string(kFrameFooter) + Frame{QUIL_END}.bytes() + acknowledgement + std::string(kFrameMark);
}
