#include "Conversation.h"

#include <algorithm>
#include <thread>

#include "common/Frame.h"
#include "common/Text.h"

namespace {

constexpr std::chrono::seconds kWhole(300);                       // that the gateway gives a request
constexpr std::uint64_t kLongestAnswer = std::uint64_t{1} << 28;  // bytes, to end some time
constexpr std::uint32_t kTooLong = 0xFFFFFFFF;                    // no text can be that long
constexpr std::uint32_t kSlowReads = 40;

// In hexadecimal; what can be read is there as text too.
std::string quoted(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes)
        text += format(text.empty() ? "%02X" : " %02X", static_cast<unsigned char>(byte));
    const bool isReadable =
        std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return isReadable ? text + " (\"" + std::string(bytes) + "\")" : text;
}

}  // namespace

// ---- Answer ----

bool Answer::has(std::uint32_t type) const {
    return std::any_of(messages.begin(), messages.end(), [type](const auto& m) { return m.type == type; });
}

Header Answer::header() const {
    for (const Message& message : messages) {
        if (message.type == QUIL_HTTP_HEADER) return Header(message.text);
    }
    return Header("");
}

std::string Answer::body() const {
    std::string body;
    for (const Message& message : messages) {
        if (message.type == QUIL_BODY_DATA) body += message.text;
    }
    return body;
}

// ---- Conversation ----

Conversation::Conversation(const Server& server, Manner manner)
    : manner_(std::move(manner)), timeout_(server.timeout), connection_(server, manner_.receiveBuffer) {}

void Conversation::send(std::string_view bytes, std::size_t atOnce) {
    sent_ = sent_ && connection_.send(bytes, atOnce);
}

std::optional<Message> Conversation::next() {
    if (ended_) return std::nullopt;
    Message message;
    message.begin = messageAt_ = received_ - came_.size();
    ++number_;
    expect(kFrameMark, "the frame mark", "frame-mark");
    expect(number(QUIL_PROTOCOL_VERSION), "the version", "version");
    message.type = takeNumber("the type");
    switch (message.type) {
        case QUIL_FILE_REQUEST:
            message.text = takeText("the path of a file request");
            break;
        case QUIL_BODY_DATA:
            message.text = takeText("a piece of the body");
            break;
        case QUIL_HTTP_HEADER:
            message.text = takeText("the header");
            break;
        case QUIL_END:
            ended_ = true;
            break;
        default:
            fail("type", format("the type is %u; a server sends 2, 4, 6 and 7", message.type),
                 received_ - came_.size() - sizeof message.type);
    }
    expect(kFrameFooter, "the footer", "footer");
    message.end = received_ - came_.size();
    if (!sent_)
        fail("whole-request", "a message came, but the request was not read to its end", message.begin);
    return message;
}

std::string Conversation::replyTo(const Message& message) const {
    if (message.type == QUIL_END) return {};
    if (message.type != QUIL_FILE_REQUEST) return Frame{message.type, number(manner_.truth)}.bytes();
    const std::string reply = manner_.file ? number(manner_.truth) + counted(*manner_.file) : number(0);
    return Frame{QUIL_FILE_REPLY, reply}.bytes();
}

void Conversation::reply(const Message& message) {
    if (message.end >= manner_.leavesAfter) {
        if (manner_.resets) reset();
        throw Left();
    }
    if (message.type == QUIL_END) return;
    const bool isFirst = pondered_.insert(message.type).second;
    if (came_.empty() && connection_.hasBytes(isFirst ? manner_.ponders : milliseconds(0)))
        receive(manner_.readsAtOnce);
    expectNothingMore("one-at-a-time", "before the gateway answered this message");
    send(replyTo(message), manner_.sendsAtOnce);
}

void Conversation::expectClosed(const std::string& after) {
    const Connection::Came came = receive(Connection::kAtOnce);
    if (!came_.empty()) {
        throw Broken(after + ": the server goes on with " + quoted(came_.substr(0, 16)) +
                     " instead of closing");
    }
    if (came == Connection::Came::kNothing)
        throw Broken(format("%s: the server does not close within %lld ms", after.c_str(),
                            static_cast<long long>(timeout_.count())));
}

Answer Conversation::complete() {
    Answer answer;
    try {
        while (auto message = next()) {
            const Message& last = answer.messages.emplace_back(std::move(*message));
            reply(last);
            if (last.type != QUIL_HTTP_HEADER || Header(last.text).status() != 0) continue;
            fail("status-line", "the header begins with \"" + printable(last.text) + "\"", last.begin);
        }
        expectNothingMore("nothing-after-end", "after the end");
        if (receive(Connection::kAtOnce) == Connection::Came::kNothing) {
            fail("closes",
                 format("the server does not close within %lld ms after the end",
                        static_cast<long long>(timeout_.count())),
                 received_);
        }
        expectNothingMore("nothing-after-end", "after the end");
    } catch (const Broken& fault) {
        answer.fault = fault;
    } catch (const Left&) {
    }
    return answer;
}

void Conversation::expect(std::string_view expected, const char* part, const char* rule) {
    const std::uint64_t at = received_ - came_.size();
    const std::string bytes = take(expected.size(), part);
    if (bytes == expected) return;
    fail(rule, format("%s is %s, not %s", part, quoted(bytes).c_str(), quoted(expected).c_str()), at);
}

std::string Conversation::takeText(const char* part) {
    const std::uint64_t at = received_ - came_.size();
    const std::uint32_t size = takeNumber("a length");
    if (size == kTooLong) fail("length", format("%s has the length FF FF FF FF", part), at);
    return take(size, part);
}

std::uint32_t Conversation::takeNumber(const char* part) {
    std::uint32_t value = 0;
    for (const char byte : take(sizeof value, part))
        value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

std::string Conversation::take(std::size_t size, const char* part) {
    while (came_.size() < size)
        fill(part);
    std::string bytes = came_.substr(0, size);
    came_.erase(0, size);
    return bytes;
}

// Receives at least a byte.
void Conversation::fill(const char* part) {
    if (received_ >= manner_.leavesAfter) {
        if (manner_.resets) reset();
        throw Left();
    }
    if (received_ > kLongestAnswer) {
        fail("end", format("no end in the first %llu MB", static_cast<unsigned long long>(received_ >> 20)),
             received_);
    }
    if (std::chrono::steady_clock::now() - begin_ > kWhole)
        fail("in-time", "300 seconds have passed without an end", received_);
    if (slowReads_ < kSlowReads) {
        std::this_thread::sleep_for(manner_.readsSlowly / kSlowReads);
        ++slowReads_;
    }

    const Connection::Came came = receive(static_cast<std::size_t>(
        std::min<std::uint64_t>(manner_.leavesAfter - received_, manner_.readsAtOnce)));
    if (came == Connection::Came::kBytes) return;
    if (came == Connection::Came::kNothing) {
        fail("in-time",
             format("nothing came for %lld ms, where %s is due", static_cast<long long>(timeout_.count()),
                    part),
             received_);
    }
    const std::string how =
        came == Connection::Came::kEnd ? "the server closes" : "the server resets the connection";
    if (received_ == messageAt_) fail("end", how + " before it has sent the end", received_);
    fail("whole-message", format("%s within a message, in %s", how.c_str(), part), received_);
}

Connection::Came Conversation::receive(std::size_t most) {
    const std::size_t before = came_.size();
    const Connection::Came came = connection_.receive(came_, most);
    received_ += came_.size() - before;
    return came;
}

void Conversation::expectNothingMore(const char* rule, const char* when) {
    if (came_.empty()) return;
    fail(rule, format("%s come %s", quoted(came_.substr(0, 16)).c_str(), when), received_ - came_.size());
}

void Conversation::fail(const char* rule, const std::string& text, std::uint64_t at) const {
    throw Broken(format("message %u, byte %llu of the answer: %s", number_,
                        static_cast<unsigned long long>(at), text.c_str()),
                 rule);
}
