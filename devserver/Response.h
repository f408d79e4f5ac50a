// Response: an HTTP response, sent through a conversation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Conversation.h"

// The status line and the fields that go before a response's body.
struct ResponseHeader {
    std::uint32_t code = 200;
    std::string reason = "OK";
    std::string type = "text/html; charset=utf-8";
    std::optional<std::uint64_t> length;                      // of the body, where it is known
    std::vector<std::pair<std::string, std::string>> fields;  // further ones

    ResponseHeader() = default;
    explicit ResponseHeader(std::uint32_t status);  // with the usual reason of that code

    bool allowsBody() const;   // RFC 9110: 1xx, 204 and 304 have none
    std::string text() const;  // the whole header, empty line included
};

// First begin(), then the body, then end(); send() is all but the end. Errors are the conversation's.
class Response {
  public:
    // A response to HEAD has no body: what is written is dropped.
    Response(Conversation& conversation, bool isHead, std::uint32_t pieceSize, std::string server)
        : conversation_(conversation),
          withBody_(!isHead),
          pieceSize_(pieceSize),
          server_(std::move(server)) {}

    bool begin(ResponseHeader header);        // false: no body is wanted
    void write(std::string_view bytes);       // in as many pieces as it takes
    void writePiece(std::string_view bytes);  // as one piece
    void end();                               // once; later calls do nothing
    void send(ResponseHeader header, std::string_view content);

    // The header, with the field that tells who answered.
    ResponseHeader complete(ResponseHeader header) const;

    std::uint32_t code() const { return code_; }              // 0: nothing was sent yet
    std::uint64_t bodyLength() const { return bodyLength_; }  // bytes sent so far

  private:
    Conversation& conversation_;
    bool withBody_;
    std::uint32_t pieceSize_;
    std::string server_;
    std::uint32_t code_ = 0;
    std::uint64_t bodyLength_ = 0;
    bool ended_ = false;
};
