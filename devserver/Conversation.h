// Conversation: the server's side of the protocol with one gateway.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Options.h"
#include "Request.h"
#include "Wire.h"
#include "net/Socket.h"

// The client broke the protocol, went away or was silent for too long; what() says it for the log.
class ConversationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The server ended the conversation itself, on purpose.
class HungUp {};

// First the request comes, then the answer goes: a header, pieces of the body, the end. Each header and piece
// is one message, and its acknowledgement is read and checked before the next. Files may be asked for any
// time before the end.
//
// Every operation throws ConversationError when it cannot be done; the conversation is over then. Threads:
// one at a time.
class Conversation {
  public:
    Conversation(Socket& socket, const Options& options);

    // False when the client closed the connection without having sent anything.
    bool receiveRequest(Request& request);

    void sendHeader(std::string_view header);
    void sendPiece(std::string_view piece);
    void sendEnd();

    // The client's file of that path; false when it has none to give.
    bool requestFile(std::string_view path, std::string& content);

    // Waits. A client that goes away meanwhile is noticed.
    void pause(std::uint32_t milliseconds);

    // ---- ways to misbehave ----
    void cutAfter(std::uint64_t bytes);    // the answer, frames included, ends after so many bytes: HungUp
    void sendRaw(std::string_view bytes);  // no message, no acknowledgement
    [[noreturn]] void hangUp();            // closes the sending side; throws HungUp once the client is gone
    [[noreturn]] void reset();             // the client sees a connection reset; throws HungUp

  private:
    void sendAcknowledged(std::uint32_t type, std::string_view text, const char* what);
    void send(std::uint32_t type, const std::string_view* text, const char* what);
    void receiveHeader(std::uint32_t type, const char* what);
    void receiveBytes(std::string& bytes, std::uint32_t limit, const char* what);
    void receiveFooter(const char* what);
    void require(bool received, const char* what);

    Socket& socket_;
    Wire wire_;
    std::uint32_t maxBody_;
};
