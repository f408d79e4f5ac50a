#include "Conversation.h"

#include <sys/socket.h>

#include <cstring>

#include "common/Reset.h"
#include "common/Text.h"
#include "protocol/QuilRequest.h"

namespace {

// Texts are environment variables on the gateway's side: 128 KB each at most under Linux.
constexpr std::uint32_t kMaxText = 1024 * 1024;

// How long and for how many reads a client may go on after the server hung up.
constexpr std::uint32_t kHangUpWait = 2000;
constexpr int kHangUpReads = 1000;

}  // namespace

Conversation::Conversation(Socket& socket, const Options& options)
    : socket_(socket), wire_(socket), maxBody_(options.maxBody) {
    wire_.SetReadWriteTimeout(options.timeoutMilliseconds());
}

bool Conversation::receiveRequest(Request& request) {
    constexpr const char* kWhat = "the request";
    try {
        receiveHeader(QUIL_REQUEST, kWhat);
    } catch (const ConversationError&) {
        if (wire_.wasLeftUnused()) return false;
        throw;
    }
    require(wire_.unmarshallULONG(request.fileTime), kWhat);
    receiveBytes(request.body, maxBody_, "the request's body");
    std::string name;
    for (std::uint32_t id = 0; id < QUIL_PARAM_NONE; ++id) {
        const char* expected = FindQuilParamName(static_cast<TQUILReqParamID>(id));
        receiveBytes(name, kMaxText, "the name of a parameter");
        if (name != expected) {
            throw ConversationError(format("parameter %u of the request is \"%s\", not \"%s\"", id,
                                           printable(name).c_str(), expected));
        }
        receiveBytes(request.parameters[id], kMaxText, expected);
    }
    receiveFooter(kWhat);
    return true;
}

void Conversation::sendHeader(std::string_view header) {
    sendAcknowledged(QUIL_HTTP_HEADER, header, "the HTTP header");
}

void Conversation::sendPiece(std::string_view piece) {
    sendAcknowledged(QUIL_BODY_DATA, piece, "a piece of the body");
}

void Conversation::sendEnd() {
    send(QUIL_END, nullptr, "the end");
}

bool Conversation::requestFile(std::string_view path, std::string& content) {
    constexpr const char* kWhat = "the file reply";
    send(QUIL_FILE_REQUEST, &path, "a file request");
    receiveHeader(QUIL_FILE_REPLY, kWhat);
    bool found = false;
    require(wire_.unmarshallRETCODE(found), kWhat);
    if (found) receiveBytes(content, maxBody_, "the file");
    receiveFooter(kWhat);
    return found;
}

void Conversation::pause(std::uint32_t milliseconds) {
    // Nothing is due from the client now: what makes the socket readable is its end.
    if (milliseconds != 0 && socket_.IsSocketReadable(milliseconds)) {
        throw ConversationError("the client ended the conversation while the server waited");
    }
}

void Conversation::cutAfter(std::uint64_t bytes) {
    wire_.cutAfter(bytes);
}

void Conversation::sendRaw(std::string_view bytes) {
    if (!wire_.deliver(bytes) && !wire_.isCut()) throw ConversationError("raw bytes: " + wire_.failure());
}

void Conversation::hangUp() {
    ::shutdown(socket_.GetDescriptor(), SHUT_WR);
    char ignored[4096];
    for (int reads = 0; reads < kHangUpReads && socket_.IsSocketReadable(kHangUpWait); ++reads) {
        if (socket_.Receive(ignored, sizeof ignored, 0) <= 0) break;
    }
    throw HungUp();
}

void Conversation::reset() {
    resetConnection(socket_.GetDescriptor());
    throw HungUp();
}

void Conversation::sendAcknowledged(std::uint32_t type, std::string_view text, const char* what) {
    send(type, &text, what);
    const std::string acknowledgement = std::string("the acknowledgement of ") + what;
    receiveHeader(type, acknowledgement.c_str());
    bool accepted = false;
    require(wire_.unmarshallRETCODE(accepted), acknowledgement.c_str());
    receiveFooter(acknowledgement.c_str());
    if (!accepted) throw ConversationError(std::string("the client refused ") + what);
}

void Conversation::send(std::uint32_t type, const std::string_view* text, const char* what) {
    const bool sent = wire_.marshallHeader(type, QUIL_PROTOCOL_VERSION) &&
                      (text == nullptr || wire_.marshallBytes(*text)) && wire_.marshallFooter();
    if (wire_.isCut()) hangUp();
    if (!sent) throw ConversationError(std::string(what) + " could not be sent: " + wire_.failure());
}

void Conversation::receiveHeader(std::uint32_t type, const char* what) {
    std::uint32_t gotType = 0;
    std::uint32_t version = 0;
    const bool received = wire_.unmarshallHeader(gotType, version);
    if (!wire_.isStreamGood())
        throw ConversationError(std::string(what) + " does not begin with the frame mark QUIL");
    require(received, what);
    if (version != QUIL_PROTOCOL_VERSION) {
        throw ConversationError(
            format("%s has the protocol version 0x%08X, not 0x%08X", what, version, QUIL_PROTOCOL_VERSION));
    }
    if (gotType != type) {
        throw ConversationError(format("%s has the message type %u, not %u", what, gotType, type));
    }
}

void Conversation::receiveBytes(std::string& bytes, std::uint32_t limit, const char* what) {
    const bool received = wire_.unmarshallBytes(bytes, limit);
    if (wire_.refusedLength() != 0) {
        throw ConversationError(
            format("%s is %u bytes long, more than %u", what, wire_.refusedLength(), limit));
    }
    require(received, what);
}

void Conversation::receiveFooter(const char* what) {
    const bool received = wire_.unmarshallFooter();
    if (!wire_.isStreamGood())
        throw ConversationError(std::string(what) + " does not end with the footer END!");
    require(received, what);
    if (wire_.surplus() != 0) throw ConversationError(format("%u bytes follow %s", wire_.surplus(), what));
}

void Conversation::require(bool received, const char* what) {
    if (!received) throw ConversationError(std::string(what) + " did not come whole: " + wire_.failure());
}
