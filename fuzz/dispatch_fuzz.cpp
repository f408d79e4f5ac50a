// The conversation with an application server that sends anything at all: the messages taken are those that
// were sent, each gets its answer, and lengths on the wire claim little memory.
//
// Input: the bytes that the server sends. A backslash and another character stand for a pause, at which a
// receive ends; two backslashes for one. The last byte: the number of the write that fails, 0 for none; the
// byte before it: whether paths of files are parsed.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "support/Wire.h"

namespace {

namespace wire = support::wire;

constexpr int kDocument = 99;
const std::string kContent = "the document";

const fuzz::MemoryFile& document() {
    static const fuzz::MemoryFile file(kDocument);
    return file;
}

using Message = std::pair<std::uint32_t, std::string>;  // its type and its text

// A conversation, as it went or as it should have gone.
struct Conversation {
    std::vector<Message> seen;  // by the callback
    std::string answers;        // those that reached the server
    bool completed = false;
};

class Client : public fuzz::Client {
  public:
    explicit Client(FuzzedDataProvider& input)
        : failingWrite(input.ConsumeIntegral<std::uint8_t>()), parseFilePaths(input.ConsumeBool()) {
        while (input.remaining_bytes() > 0) {
            stream += input.ConsumeRandomLengthString();
            pauses.insert(stream.size());
        }
    }

    std::string stream;
    std::set<std::size_t> pauses;    // places in the stream up to which a receive reads at most
    std::set<std::size_t> receives;  // where receives ended
    const std::size_t failingWrite;  // from 1
    const bool parseFilePaths;

    Conversation talk() {
        const DispatchCallback see = [](QuilClient&, TQUILReqType type, const char* data,
                                        std::uint32_t length, void* user) {
            assert(data[length] == 0);
            static_cast<Conversation*>(user)->seen.emplace_back(type, std::string(data, length));
            return true;
        };
        went_.completed = DispatchQuilRequests(see, &went_, parseFilePaths);
        return went_;
    }

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override {
        assert(len > 0);
        const auto pause = pauses.upper_bound(position_);
        const std::size_t end = pause != pauses.end() ? *pause : position_;
        const std::size_t n = std::min<std::size_t>(len, end - position_);
        std::memcpy(dst, stream.data() + position_, n);
        receives.insert(position_ += n);
        return static_cast<std::uint32_t>(n);
    }

    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override {
        assert(!lost_);
        lost_ = ++writes_ == failingWrite;
        if (lost_) return kTransportError;
        went_.answers.append(static_cast<const char*>(src), len);
        return len;
    }

  private:
    Conversation went_;
    std::size_t position_ = 0;
    std::size_t writes_ = 0;
    bool lost_ = false;
};

bool hasText(std::uint32_t type) {
    return type == QUIL_BODY_DATA || type == QUIL_HTTP_HEADER || type == QUIL_FILE_REQUEST;
}

// The bytes of a message, as the server sent them. One of a type that nobody knows ends with its header.
std::string bytesOf(const Message& message) {
    const auto& [type, text] = message;
    if (hasText(type)) return wire::message(type, wire::counted(text));
    return type == QUIL_END ? wire::end() : wire::message(type).substr(0, 12);
}

std::string answerTo(const Message& message) {
    const auto& [type, text] = message;
    if (type != QUIL_FILE_REQUEST) return wire::acknowledgement(type);
    return text == document().path() ? wire::fileReply(kContent) : wire::fileRefused();
}

// The messages that were seen stood in the stream one after the other, and have their answers.
void check(const Client& client, const Conversation& went) {
    const auto comparable = [&](std::string bytes) {
        if (client.parseFilePaths) std::replace(bytes.begin(), bytes.end(), '\\', '/');
        return bytes;
    };
    const std::string stream = comparable(client.stream);
    std::string answers;
    std::size_t at = 0, answered = 0;
    for (const Message& message : went.seen) {
        const std::string bytes = comparable(bytesOf(message));
        const bool isWhole = stream.compare(at, bytes.size(), bytes) == 0;
        assert(isWhole || message.first == QUIL_FILE_REQUEST);  // one that broke off is seen, too
        at = std::min(at + bytes.size(), stream.size());
        // There is no answer while more of the server's bytes have come than were asked for.
        const bool isAnswered = isWhole && hasText(message.first) && client.receives.count(at) != 0;
        if (isAnswered && ++answered != client.failingWrite) answers += answerTo(message);
    }
    assert(went.answers == answers);
    assert(went.completed == (!went.seen.empty() && went.seen.back().first == QUIL_END));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    document().write(kContent);
    FuzzedDataProvider input(data, size);
    Client client(input);

    const fuzz::HeapWatch heap;
    const Conversation went = client.talk();
    assert(heap.peak() < 3 * 1024 * 1024 / 2 + 16 * size);

    check(client, went);
    return 0;
}
