// The conversation with an application server that sends anything at all: which messages are taken, what is
// answered, and how much memory the lengths on the wire can claim.
//
// Input: the bytes that the server sends. A backslash and another character stand for a pause, at which a
// receive ends; two backslashes for one. The last byte: the number of the write that fails, 0 for none; the
// byte before it: whether paths of files are parsed.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <optional>
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

// How the conversation should have gone, from the stream as a whole.
class Expectation {
  public:
    explicit Expectation(const Client& client) : client_(client), stream_(client.stream) {
        while (!lost_ && takeMessage()) {
        }
    }

    Conversation conversation;

  private:
    // False when it was the last one.
    bool takeMessage() {
        const auto head = take(12);
        if (!head || head->substr(0, 8) != "QUIL\xFF\xFD\xFF\xFD") return false;
        const std::uint32_t type = numberAt(*head, 8);
        std::optional<std::string> text;
        if (type == QUIL_BODY_DATA || type == QUIL_HTTP_HEADER) {
            text = takeText();
            if (!text || !takeFooter()) return false;
            answer(wire::acknowledgement(type));
        } else if (type == QUIL_FILE_REQUEST) {
            text = takeText();
            if (text && takeFooter()) {
                if (client_.parseFilePaths) std::replace(text->begin(), text->end(), '\\', '/');
                answer(*text == document().path() ? wire::fileReply(kContent) : wire::fileRefused());
            }
        } else if (type == QUIL_END && !takeFooter()) {
            return false;
        }
        conversation.seen.emplace_back(type, text.value_or(""));
        conversation.completed = type == QUIL_END;
        return type != QUIL_END;
    }

    std::optional<std::string> take(std::size_t n) {
        if (n > stream_.size() - position_) {
            position_ = stream_.size();
            return std::nullopt;
        }
        position_ += n;
        return stream_.substr(position_ - n, n);
    }
    bool takeFooter() { return take(4) == "END!"; }
    std::optional<std::string> takeText() {
        const auto length = take(4);
        return length ? take(numberAt(*length, 0)) : std::nullopt;
    }
    static std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
        std::uint32_t value = 0;
        for (const char byte : bytes.substr(at, 4))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }

    // There is no answer while more of the server's bytes have come than were asked for.
    void answer(const std::string& message) {
        if (client_.receives.count(position_) == 0) return;
        lost_ = ++answers_ == client_.failingWrite;
        if (!lost_) conversation.answers += message;
    }

    const Client& client_;
    const std::string& stream_;
    std::size_t position_ = 0;
    std::size_t answers_ = 0;
    bool lost_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    document().write(kContent);
    FuzzedDataProvider input(data, size);
    Client client(input);

    const fuzz::HeapWatch heap;
    const Conversation went = client.talk();
    assert(heap.peak() < 3 * 1024 * 1024 / 2 + 16 * size);

    const Conversation expected = Expectation(client).conversation;
    assert(went.seen == expected.seen);
    assert(went.answers == expected.answers);
    assert(went.completed == expected.completed);
    return 0;
}
