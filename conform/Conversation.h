// Conversation: the gateway's side of the protocol, which judges what the server sends.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Connection.h"
#include "Header.h"

// The server breaks a rule; what() tells what came, at which byte, and what was expected.
class Broken : public std::runtime_error {
  public:
    explicit Broken(const std::string& text, const char* rule = "") : std::runtime_error(text), rule_(rule) {}

    const char* rule() const { return rule_; }  // of those that every answer is judged by; "" for another

  private:
    const char* rule_;
};

struct Message {
    std::uint32_t type = 0;
    std::uint64_t begin = 0;  // its place in the answer
    std::uint64_t end = 0;
    std::string text;  // a path, a header, or a piece of the body
};

// All that the server sent.
struct Answer {
    std::vector<Message> messages;
    std::optional<Broken> fault;  // why there is no more of it

    bool has(std::uint32_t type) const;
    std::uint64_t size() const { return messages.empty() ? 0 : messages.back().end; }
    Header header() const;     // the first, an empty one when none came
    std::string body() const;  // the pieces joined
};

// What the gateway does besides the usual.
struct Manner {
    std::optional<std::string> file;                // its reply to each file request; none: no such file
    std::uint32_t truth = 1;                        // a result that is true
    std::size_t sendsAtOnce = Connection::kAtOnce;  // bytes of a reply
    milliseconds ponders{0};                        // before its first reply of each type, watching

    int receiveBuffer = 0;
    std::size_t readsAtOnce = Connection::kAtOnce;
    milliseconds readsSlowly{0};  // spread over the beginning of the answer

    // Leaves when so many bytes of the answer came, before it replies to them.
    std::uint64_t leavesAfter = std::numeric_limits<std::uint64_t>::max();
    bool resets = false;  // how it leaves
};

// The gateway has left, as its manner wants it.
class Left {};

// Every operation but complete() throws Broken at what a gateway gives up at. Threads: one at a time.
class Conversation {
  public:
    explicit Conversation(const Server& server, Manner manner = {});

    // A server that no longer takes the bytes is found by next().
    void send(std::string_view bytes, std::size_t atOnce = Connection::kAtOnce);

    // The server's next message, whole; none after the end.
    std::optional<Message> next();
    std::string replyTo(const Message& message) const;  // empty: the end has none
    void reply(const Message& message);
    void expectClosed(const std::string& after);  // without another byte

    // The rest of the conversation, replies included.
    Answer complete();

    bool hasBytes(milliseconds time) { return connection_.hasBytes(time); }
    void endSending() { connection_.endSending(); }
    void reset() { connection_.reset(); }

  private:
    std::string take(std::size_t size, const char* part);
    std::uint32_t takeNumber(const char* part);
    void expect(std::string_view expected, const char* part, const char* rule);
    std::string takeText(const char* part);
    void fill(const char* part);
    Connection::Came receive(std::size_t most);
    void expectNothingMore(const char* rule, const char* when);
    [[noreturn]] void fail(const char* rule, const std::string& text, std::uint64_t at) const;

    const Manner manner_;
    const milliseconds timeout_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    Connection connection_;
    bool sent_ = true;             // all bytes so far
    std::string came_;             // and was not taken yet
    std::uint64_t received_ = 0;   // bytes
    std::uint64_t messageAt_ = 0;  // where the message being taken begins
    std::uint32_t number_ = 0;     // of that message, from 1
    std::uint32_t slowReads_ = 0;
    std::set<std::uint32_t> pondered_;  // types
    bool ended_ = false;
};
