// The conversation with an application server that sends anything at all: the messages taken are those that
// were sent, each gets its answer, and lengths on the wire claim little memory.
//
// Input: the bytes that the server sends. A backslash and another character stand for a pause, at which a
// receive ends; two backslashes for one. The last byte: the number of the write that fails, 0 for none; the
// byte before it: whether paths of files are parsed.
#include <fuzzer/FuzzedDataProvider.h>

#include <set>
#include <vector>

#include "Fuzz.h"
#include "support/Wire.h"

namespace {

namespace wire = support::wire;

const std::string kContent = "the document";
const fuzz::MemoryFile document(99);

using Message = std::pair<std::uint32_t, std::string>;  // its type and its text

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
    return text == document.path() ? wire::fileReply(kContent) : wire::fileRefused();
}

struct Client : fuzz::Client {
    bool parseFilePaths = false;
    std::vector<Message> seen;       // by the callback
    std::set<std::size_t> receives;  // where receives ended

    bool talk() {
        const auto see = [](QuilClient&, TQUILReqType type, const char* data, std::uint32_t n, void* to) {
            assert(data[n] == 0);
            static_cast<std::vector<Message>*>(to)->emplace_back(type, std::string(data, n));
            return true;
        };
        return DispatchQuilRequests(see, &seen, parseFilePaths);
    }

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override {
        const std::uint32_t n = fuzz::Client::readFromTransport(dst, len);
        receives.insert(position);
        return n;
    }

    // The messages that were seen stood in the stream one after the other, and have their answers.
    void check(bool completed) const {
        const auto comparable = [&](std::string bytes) {
            if (parseFilePaths) std::replace(bytes.begin(), bytes.end(), '\\', '/');
            return bytes;
        };
        const std::string stream = comparable(input);
        std::string answers;
        std::size_t at = 0;
        for (const Message& message : seen) {
            const std::string bytes = comparable(bytesOf(message));
            const bool isWhole = stream.compare(at, bytes.size(), bytes) == 0;
            assert(isWhole || message.first == QUIL_FILE_REQUEST);  // one that broke off is seen, too
            at = std::min(at + bytes.size(), stream.size());
            // There is no answer while more of the server's bytes have come than were asked for.
            if (isWhole && hasText(message.first) && receives.count(at) != 0) answers += answerTo(message);
        }
        assert(written == answers);
        assert(completed == (!seen.empty() && seen.back().first == QUIL_END));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    document.write(kContent);
    FuzzedDataProvider provider(data, size);
    Client client;
    client.failingWrite = provider.ConsumeIntegral<std::uint8_t>() - std::size_t{1};
    client.parseFilePaths = provider.ConsumeBool();
    while (provider.remaining_bytes() > 0)
        client.cuts.insert((client.input += provider.ConsumeRandomLengthString()).size());

    const fuzz::HeapWatch heap;
    const bool completed = client.talk();
    assert(heap.peak() < 3 * 1024 * 1024 / 2 + 16 * size);

    client.check(completed);
    return 0;
}
