// The rules about acknowledgements, and about connections: slow ones, many, and those that end anywhere.
#include <algorithm>
#include <memory>
#include <set>
#include <thread>

#include "Rules.h"
#include "common/Frame.h"
#include "common/Text.h"

namespace {

constexpr std::size_t kMegabyte = std::size_t{1} << 20;
constexpr int kSmallBuffer = 4096;  // bytes
constexpr std::size_t kResetEvery = 16;

// ---- acknowledgements ----

void splitAcknowledgement(Trial& trial) {
    Manner manner;
    manner.sendsAtOnce = 1;
    trial.wholeAnswer("acknowledgements that come byte by byte", trial.request(), manner);
}

void truth(Trial& trial) {
    Manner manner;
    manner.truth = 0xFFFFFFFF;
    manner.file = "Hi\n";
    trial.wholeAnswer("results of FF FF FF FF", trial.request(), manner);
    trial.wholeAnswer("results of FF FF FF FF", trial.document(), manner);
}

// A reply other than the right one to the first message of that type.
void expectClosedAfter(Trial& trial, const Request& request, std::uint32_t type, const std::string& reply,
                       const std::string& what) {
    Conversation conversation(trial.server());
    conversation.send(request.bytes());
    while (const auto message = conversation.next()) {
        if (message->type == type) {
            conversation.send(reply);
            return conversation.expectClosed(what);
        }
        conversation.reply(*message);
    }
    throw Skipped(format("no message of type %u came", type));
}

void refusal(Trial& trial) {
    expectClosedAfter(trial, trial.request(), QUIL_HTTP_HEADER, Frame{QUIL_HTTP_HEADER, number(0)}.bytes(),
                      "an acknowledgement with result false");
}

void wrongAcknowledgement(Trial& trial) {
    expectClosedAfter(trial, trial.request(), QUIL_HTTP_HEADER, Frame{QUIL_BODY_DATA, number(1)}.bytes(),
                      "an acknowledgement of type 4 for the header");
    expectClosedAfter(trial, trial.request(), QUIL_HTTP_HEADER,
                      Frame{QUIL_HTTP_HEADER, number(1), "QUIT"}.bytes(),
                      "an acknowledgement with the mark QUIT");
}

void wrongFileReply(Trial& trial) {
    expectClosedAfter(trial, trial.document(), QUIL_FILE_REQUEST, Frame{QUIL_BODY_DATA, number(1)}.bytes(),
                      "a file reply of type 4");
    expectClosedAfter(trial, trial.document(), QUIL_FILE_REQUEST,
                      Frame{QUIL_FILE_REPLY, number(1) + counted("Hi\n"), "QUIT"}.bytes(),
                      "a file reply with the mark QUIT");
}

// ---- slow ones ----

void slowRequest(Trial& trial) {
    const std::string bytes = trial.request().bytes();
    Conversation conversation(trial.server());
    conversation.send(bytes.substr(0, bytes.size() / 2));
    std::this_thread::sleep_for(trial.pause());
    conversation.send(bytes.substr(bytes.size() / 2));
    Trial::whole(format("a request with a pause of %lld ms in the middle",
                        static_cast<long long>(trial.pause().count())),
                 conversation.complete());
}

void lateAcknowledgement(Trial& trial) {
    Manner manner;
    manner.ponders = trial.pause();
    trial.wholeAnswer(
        format("acknowledgements after %lld ms", static_cast<long long>(manner.ponders.count())),
        trial.request(), manner);
}

void slowReader(Trial& trial) {
    Manner manner;
    manner.file = bytesOf(kMegabyte);  // what the server does with it may be large as well
    manner.receiveBuffer = kSmallBuffer;
    manner.readsAtOnce = kSmallBuffer / 8;
    manner.readsSlowly = trial.pause();
    trial.wholeAnswer("a gateway that reads slowly", trial.document(), manner);
}

// ---- many ----

void inTurn(Trial& trial) {
    const std::uint32_t count = trial.options().connections;
    for (std::uint32_t i = 1; i <= count; ++i)
        trial.wholeAnswer(format("conversation %u of %u in turn", i, count), trial.request());
}

// Half of them have sent half a request, the others do not acknowledge the header.
void sideBySide(Trial& trial) {
    constexpr std::size_t kWaiting = 16;
    const std::string bytes = trial.request().bytes();
    const std::size_t half = bytes.size() / 2;
    std::vector<std::unique_ptr<Conversation>> waiting;
    for (std::size_t i = 0; i < kWaiting; ++i) {
        waiting.push_back(std::make_unique<Conversation>(trial.server()));
        waiting.back()->send(i % 2 == 0 ? bytes.substr(0, half) : bytes);
    }
    trial.wholeAnswer(format("a request while %zu others wait", kWaiting), trial.request());
    for (std::size_t i = 0; i < kWaiting; ++i) {
        if (i % 2 == 0) waiting[i]->send(bytes.substr(half));
        Trial::whole("a request that waited while another one was answered", waiting[i]->complete());
    }
}

// ---- those that end ----

void unused(Trial& trial) {
    for (int i = 0; i < 10; ++i)
        Connection(trial.server()).endSending();
    for (int i = 0; i < 10; ++i)
        Connection(trial.server()).reset();
    trial.expectAlive("20 connections that sent nothing");
}

void cutRequest(Trial& trial) {
    const std::string bytes = trial.request().bytes();
    for (std::size_t size = 1; size < bytes.size(); ++size) {
        Conversation conversation(trial.server());
        conversation.send(bytes.substr(0, size));
        conversation.endSending();
        conversation.expectClosed(format("the first %zu of the request's %zu bytes", size, bytes.size()));
    }
    for (std::size_t size = 1; size < bytes.size(); size += kResetEvery) {
        Conversation conversation(trial.server());
        conversation.send(bytes.substr(0, size));
        conversation.reset();
    }
    trial.expectAlive("requests that ended early");
}

// The places around each of the first messages, and some in between.
std::set<std::uint64_t> placesIn(const Answer& answer) {
    constexpr std::size_t kMessages = 20;
    constexpr std::uint64_t kBetween = 64;
    constexpr std::uint64_t kFrame = 20;  // bytes of a message with a text besides this
    std::set<std::uint64_t> places;
    for (std::size_t i = 0; i < std::min(kMessages, answer.messages.size()); ++i) {
        const Message& message = answer.messages[i];
        for (std::uint64_t byte = 0; byte < kFrame; ++byte)
            places.insert(std::min(message.begin + byte, message.end));
    }
    for (std::uint64_t i = 0; i <= kBetween; ++i)
        places.insert(answer.size() * i / kBetween);
    return places;
}

void cutAnswer(Trial& trial) {
    for (const std::uint64_t place : placesIn(trial.plain())) {
        Manner manner;
        manner.leavesAfter = place;
        manner.resets = place % 2 == 0;
        trial.converse(trial.request(), manner);
    }
    trial.expectAlive("gateways that left in the middle of the answer");
}

void cutReply(Trial& trial) {
    const std::string reply = Frame{QUIL_FILE_REPLY, number(1) + counted("Hi\n")}.bytes();
    for (std::size_t size = 0; size < reply.size(); ++size) {
        Conversation conversation(trial.server());
        conversation.send(trial.document().bytes());
        const auto message = conversation.next();
        if (!message || message->type != QUIL_FILE_REQUEST) throw Skipped("no file was asked for first");
        conversation.send(reply.substr(0, size));
        conversation.endSending();
        conversation.expectClosed(format("the first %zu bytes of a file reply", size));
    }
    trial.expectAlive("file replies that ended early");
}

}  // namespace

std::vector<Rule> connectionRules() {
    return {
        {"split-acknowledgement", "Checklist", "an acknowledgement that comes byte by byte is read",
         "read on until all 20 bytes came", splitAcknowledgement},
        {"truth", "Values", "whatever is not 0 is true", "compare a result with 0, not with 1", truth},
        {"refusal", "When something goes wrong", "an acknowledgement with result false ends the connection",
         "read the acknowledgement's result, and close when it is 0", refusal},
        {"wrong-acknowledgement", "When something goes wrong",
         "an acknowledgement of another type or form ends the connection",
         "compare mark, version, type and footer of each acknowledgement, and close when one differs",
         wrongAcknowledgement},
        {"wrong-file-reply", "When something goes wrong",
         "a file reply of another type or form ends the connection",
         "compare mark, version, type and footer of the file reply, and close when one differs",
         wrongFileReply},
        {"slow-request", "Limits", "a request may come slowly", "wait 300 seconds for the next byte",
         slowRequest},
        {"late-acknowledgement", "When something goes wrong", "an acknowledgement may come late",
         "wait 300 seconds for it: the browser may read slowly", lateAcknowledgement},
        {"slow-reader", "Messages", "a gateway may read slowly",
         "go on sending until all bytes went: a send may take only some of them", slowReader},
        {"in-turn", "The connection", "many conversations are held in turn",
         "close each connection and give back all that it took", inTurn},
        {"side-by-side", "Checklist", "conversations are held side by side",
         "serve each connection in a thread or process of its own, or wait for none of them alone",
         sideBySide},
        {"unused-connection", "When something goes wrong", "connections that send nothing do no harm",
         "take an end before the first byte for nothing at all", unused},
        {"cut-request", "When something goes wrong",
         "a request that ends anywhere gets no answer and does no harm",
         "read the whole request before answering, and close when it ends early", cutRequest},
        {"cut-answer", "When something goes wrong",
         "a gateway that leaves anywhere in the answer does no harm",
         "give the request up when sending or reading fails; let no signal (SIGPIPE) end the server",
         cutAnswer},
        {"cut-file-reply", "When something goes wrong", "a file reply that ends anywhere does no harm",
         "give the request up, and close", cutReply},
    };
}
