#include "Misbehave.h"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

namespace {

std::uint32_t argument(const Exchange& exchange, const char* name, std::uint32_t fallback) {
    constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(exchange.query.number(name, fallback, 0, kMax));
}

// ---- the ways ----

void closeInstead(Exchange& exchange, Frame&) {
    exchange.conversation.hangUp();
}

void closeInText(Exchange&, Frame& frame) {
    frame.fields.resize(frame.fields.size() / 2);
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
    const std::string length =
        number(argument(exchange, "length", std::numeric_limits<std::uint32_t>::max()));
    frame.fields.replace(0, length.size(), length);
    frame.footer.clear();
}

void badStatusLine(Exchange& exchange, Frame& frame) {
    frame.fields =
        counted(exchange.query.text("line", "HTTP/1.0 OK") + "\r\nContent-Type: text/plain\r\n\r\n");
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

constexpr const char* kBody =
    "<!DOCTYPE html><title>Misbehaving</title><p>The body of a misbehaving answer.</p>\n";

Frame makeFrame(const Exchange& exchange, AnswerStep step) {
    switch (step) {
        case AnswerStep::Header:
            return {QUIL_HTTP_HEADER, counted(exchange.response.complete(ResponseHeader()).text())};
        case AnswerStep::Body:
            return {QUIL_BODY_DATA, counted(kBody)};
        case AnswerStep::End:
            break;
    }
    return {QUIL_END};
}

void sendProperly(Exchange& exchange, AnswerStep step) {
    switch (step) {
        case AnswerStep::Header:
            exchange.response.begin(ResponseHeader());
            break;
        case AnswerStep::Body:
            exchange.response.write(kBody);
            break;
        case AnswerStep::End:
            exchange.response.end();
            break;
    }
}

// A frame that the misbehaviour changed goes out as it is, and the conversation ends there.
void sendWrongly(Exchange& exchange, const Misbehaviour& misbehaviour, AnswerStep step) {
    Frame frame = makeFrame(exchange, step);
    const std::string proper = frame.bytes();
    misbehaviour.act(exchange, frame);
    if (frame.bytes() == proper) return sendProperly(exchange, step);
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
        if (step == wrongStep) {
            sendWrongly(exchange, misbehaviour, step);
        } else {
            sendProperly(exchange, step);
        }
    }
}
