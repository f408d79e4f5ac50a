#include "Misbehave.h"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

// One message byte by byte, so that each of its fields can be made wrong.
struct Frame {
    AnswerStep step;
    std::uint32_t type;
    std::string text;
    std::string mark = "QUIL";
    std::uint32_t version = QUIL_PROTOCOL_VERSION;
    std::uint32_t length = static_cast<std::uint32_t>(text.size());
    std::string footer = "END!";

    std::string bytes() const;
};

namespace {

std::string number(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
}

std::uint32_t argument(const Exchange& exchange, const char* name, std::uint32_t fallback) {
    constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(exchange.query.number(name, fallback, 0, kMax));
}

// ---- the ways ----

void closeInstead(Exchange& exchange, Frame&) {
    exchange.conversation.hangUp();
}

void closeInText(Exchange&, Frame& frame) {
    frame.text.resize(frame.text.size() / 2);
    frame.footer.clear();
}

void resetInstead(Exchange& exchange, Frame&) {
    exchange.conversation.reset();
}

void wrongMark(Exchange&, Frame& frame) {
    frame.mark = "QUIT";
}

void wrongVersion(Exchange& exchange, Frame& frame) {
    frame.version = argument(exchange, "version", QUIL_PROTOCOL_VERSION - 1);
}

void wrongFooter(Exchange&, Frame& frame) {
    frame.footer = "END?";
}

void unknownType(Exchange& exchange, Frame& frame) {
    constexpr std::uint32_t kUnused = 5;
    frame.type = argument(exchange, "type", kUnused);
}

void absurdLength(Exchange& exchange, Frame& frame) {
    frame.length = argument(exchange, "length", std::numeric_limits<std::uint32_t>::max());
    frame.footer.clear();
}

void badStatusLine(Exchange& exchange, Frame& frame) {
    frame.text = exchange.query.text("line", "HTTP/1.0 OK") + "\r\nContent-Type: text/plain\r\n\r\n";
    frame.length = static_cast<std::uint32_t>(frame.text.size());
}

void extraBytes(Exchange&, Frame& frame) {
    frame.footer += "EXTRA BYTES";
}

void wait(Exchange& exchange, Frame&) {
    constexpr std::uint32_t kDefault = 10000;
    exchange.conversation.pause(argument(exchange, "ms", kDefault));
}

void flood(Exchange& exchange, Frame&) {
    constexpr std::uint32_t kPieces = 1000;
    const std::string piece(exchange.options.pieceSize, '~');
    for (std::uint32_t left = argument(exchange, "pieces", kPieces); left > 0; --left)
        exchange.conversation.sendPiece(piece);
    exchange.conversation.hangUp();
}

// ---- the answer around them ----

Frame makeFrame(const Exchange& exchange, AnswerStep step) {
    switch (step) {
        case AnswerStep::Header:
            return {step, QUIL_HTTP_HEADER, exchange.response.complete(ResponseHeader()).text()};
        case AnswerStep::Body:
            return {step, QUIL_BODY_DATA,
                    "<!DOCTYPE html><title>Misbehaving</title><p>The body of a misbehaving answer.</p>\n"};
        case AnswerStep::End:
            break;
    }
    return {step, QUIL_END, ""};
}

void sendProperly(Exchange& exchange, const Frame& frame) {
    switch (frame.step) {
        case AnswerStep::Header:
            exchange.response.begin(ResponseHeader());
            break;
        case AnswerStep::Body:
            exchange.response.write(frame.text);
            break;
        case AnswerStep::End:
            exchange.response.end();
            break;
    }
}

// A frame that the misbehaviour changed goes out as it is, and the conversation ends there.
void sendWrongly(Exchange& exchange, const Misbehaviour& misbehaviour, Frame& frame) {
    const std::string proper = frame.bytes();
    misbehaviour.act(exchange, frame);
    if (frame.bytes() == proper) return sendProperly(exchange, frame);
    exchange.conversation.sendRaw(frame.bytes());
    exchange.conversation.hangUp();
}

AnswerStep stepOf(const Exchange& exchange, AnswerStep fallback) {
    const std::string* at = exchange.query.find("at");
    if (at == nullptr) return fallback;
    if (*at == "header") return AnswerStep::Header;
    if (*at == "body") return AnswerStep::Body;
    if (*at == "end") return AnswerStep::End;
    throw BadArgument("at must be header, body or end.");
}

const Misbehaviour& chosen(const Exchange& exchange) {
    const std::string how = exchange.query.text("how", "");
    std::string names;
    for (const Misbehaviour& misbehaviour : misbehaviours()) {
        if (how == misbehaviour.name) return misbehaviour;
        names += std::string(names.empty() ? "" : ", ") + misbehaviour.name;
    }
    throw BadArgument("how must be one of: " + names + ".");
}

}  // namespace

// The end has no text, not even an empty one.
std::string Frame::bytes() const {
    const std::string body = step == AnswerStep::End ? "" : number(length) + text;
    return mark + number(version) + number(type) + body + footer;
}

const std::vector<Misbehaviour>& misbehaviours() {
    using Step = AnswerStep;
    static const std::vector<Misbehaviour> kAll = {
        {"close-now", "", "closes instead of answering", Step::Header, closeInstead},
        {"close-after-header", "", "closes instead of sending a body", Step::Body, closeInstead},
        {"close-in-piece", "", "closes in the middle of a message", Step::Body, closeInText},
        {"reset", "", "resets the connection", Step::Header, resetInstead},
        {"wrong-mark", "", "frame mark QUIT", Step::Header, wrongMark},
        {"wrong-version", "&version=N", "protocol version 0xFFFDFFFC, or N", Step::Header, wrongVersion},
        {"wrong-footer", "", "footer END?", Step::Header, wrongFooter},
        {"unknown-type", "&type=N", "message type 5, or N", Step::Header, unknownType},
        {"absurd-length", "&length=N", "a text of 0xFFFFFFFF bytes, or N, is announced", Step::Body,
         absurdLength},
        {"bad-status-line", "&line=TEXT", "a header that begins with \"HTTP/1.0 OK\", or TEXT", Step::Header,
         badStatusLine},
        {"extra-bytes", "", "bytes after a message", Step::Body, extraBytes},
        {"wait", "&ms=N", "waits for 10000 milliseconds, or N, then goes on", Step::Header, wait},
        {"flood", "&pieces=N", "1000 pieces, or N, then closes without the end", Step::End, flood},
    };
    return kAll;
}

void misbehave(Exchange& exchange) {
    const Misbehaviour& misbehaviour = chosen(exchange);
    const AnswerStep wrongStep = stepOf(exchange, misbehaviour.at);
    for (const AnswerStep step : {AnswerStep::Header, AnswerStep::Body, AnswerStep::End}) {
        Frame frame = makeFrame(exchange, step);
        if (step == wrongStep) {
            sendWrongly(exchange, misbehaviour, frame);
        } else {
            sendProperly(exchange, frame);
        }
    }
}
