// The rules about requests: usual ones that look unusual, large ones, wrong ones.
#include "Rules.h"
#include "common/Text.h"

namespace {

constexpr std::size_t kLongestVariable =
    131072 - 16;  // bytes of an environment variable under Linux, roughly
constexpr std::size_t kMegabyte = std::size_t{1} << 20;

const std::vector<std::size_t> kSizes = {0, 1, 4095, 4096, 4097, 32768, 65535, 65536, 65537};
const std::vector<std::size_t> kLargeSizes = {kMegabyte - 1, kMegabyte, kMegabyte + 1, 4 * kMegabyte,
                                              16 * kMegabyte};

void splitRequest(Trial& trial) {
    Conversation conversation(trial.server());
    conversation.send(trial.request().bytes(), 1);
    Trial::whole("a request that comes byte by byte", conversation.complete());
}

void startPage(Trial& trial) {
    const auto status = [&](const char* path) {
        const std::string name = *path == '\0' ? "an empty PATH_INFO" : "the PATH_INFO /";
        return trial.wholeAnswer(name, trial.request(path)).header().status();
    };
    const int empty = status("");
    const int slash = status("/");
    if (empty != slash) throw Broken(format("status %d without a PATH_INFO, %d with /", empty, slash));
}

void methods(Trial& trial) {
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "PROPFIND"}) {
        Request request = trial.request();
        request[QUIL_PARAM_REQUEST_METHOD] = method;
        trial.wholeAnswer(method, request);
    }
}

void emptyValues(Trial& trial) {
    Request request;
    request[QUIL_PARAM_REQUEST_METHOD] = "GET";
    request[QUIL_PARAM_CONTENT_LENGTH] = "0";
    request[QUIL_PARAM_HTTP_COOKIE] = "VelartoClient=conform";
    trial.wholeAnswer("a request with 22 empty values", request);
}

void longValues(Trial& trial) {
    const std::string value(kLongestVariable, 'v');
    Request request = trial.request();
    for (const TQUILReqParamID id :
         {QUIL_PARAM_HTTP_REFERER, QUIL_PARAM_HTTP_USER_AGENT, QUIL_PARAM_HTTP_ACCEPT})
        request[id] = value;
    request[QUIL_PARAM_HTTP_COOKIE].insert(0, "c=" + value + "; ");
    trial.wholeAnswer(format("four values of %zu bytes", value.size()), request);
}

void anyBytes(Trial& trial) {
    std::string bytes;
    for (int byte = 0xFF; byte > 0; --byte)
        bytes += static_cast<char>(byte);
    for (const TQUILReqParamID id :
         {QUIL_PARAM_REMOTE_USER, QUIL_PARAM_HTTP_REFERER, QUIL_PARAM_HTTP_USER_AGENT}) {
        Request request = trial.request();
        request.fileTime = 0xFFFFFFFF;
        request[id] = bytes;
        trial.wholeAnswer(format("bytes FF to 01 in parameter %u", static_cast<unsigned>(id)), request);
    }
}

void marksInside(Trial& trial) {
    Request request = trial.post(trial.options().path, messagesInside());
    request.body += request.bytes();
    request[QUIL_PARAM_CONTENT_LENGTH] = std::to_string(request.body.size());
    request[QUIL_PARAM_HTTP_USER_AGENT] = "QUILEND!";
    trial.wholeAnswer("marks and footers in the body and in a value", request);
}

void statedLength(Trial& trial) {
    for (const char* length : {"", "0", "2", "99999", "-1", "1e3", "abc"}) {
        Request request = trial.post(trial.options().path, "a=b");
        request[QUIL_PARAM_CONTENT_LENGTH] = length;
        request[QUIL_PARAM_CONTENT_TYPE] = "application/x-www-form-urlencoded";
        trial.wholeAnswer(std::string("3 bytes with the CONTENT_LENGTH \"") + length + "\"", request);
    }
}

Trial::OfSize postTo(const Trial& trial, const std::string& path) {
    return [&trial, path](std::size_t size) { return trial.converse(trial.post(path, bytesOf(size))); };
}

void bodySizes(Trial& trial) {
    Trial::trySizes("a body", kSizes, postTo(trial, trial.options().path));
}

void largeBodies(Trial& trial) {
    Trial::trySizes("a body", kLargeSizes, postTo(trial, trial.options().path));
}

void echo(Trial& trial) {
    const std::string& path = trial.options().echo;
    if (path.empty()) throw Skipped("--echo names no page that answers with the body");
    const auto tryAll = [&](const std::vector<std::size_t>& sizes) {
        Trial::trySizes("a body", sizes, [&](std::size_t size) {
            Answer answer = trial.converse(trial.post(path, bytesOf(size)));
            const std::string body = answer.body();
            if (!answer.fault && body != bytesOf(size))
                throw Broken(format("a body of %zu bytes comes back as %zu others", size, body.size()));
            return answer;
        });
    };
    tryAll(kSizes);
    tryAll(kLargeSizes);
}

struct Wrong {
    const char* what;
    std::string bytes;
};

void expectAllClosed(Trial& trial, const std::vector<Wrong>& requests) {
    for (const auto& [what, bytes] : requests) {
        Conversation conversation(trial.server());
        conversation.send(bytes);
        conversation.expectClosed(what);
    }
    trial.expectAlive("those requests");
}

void wrongRequest(Trial& trial) {
    const Frame good = trial.request().frame();
    const auto changed = [&](void (*change)(Frame&)) {
        Frame frame = good;
        change(frame);
        return frame.bytes();
    };
    expectAllClosed(
        trial, {{"a request with the mark QUIT", changed([](Frame& frame) { frame.mark = "QUIT"; })},
                {"a request with the version FD FF FD FF",
                 changed([](Frame& frame) { frame.version = 0xFDFFFDFF; })},
                {"a message of type 5 for a request", changed([](Frame& frame) { frame.type = 5; })},
                {"a request with the parameter PLUGIX for PLUGIN", changed([](Frame& frame) {
                     frame.fields.replace(frame.fields.find("PLUGIN"), 6, "PLUGIX");
                 })},
                {"a request with the footer END?", changed([](Frame& frame) { frame.footer = "END?"; })}});
}

void absurdLengths(Trial& trial) {
    const std::string good = trial.post(trial.options().path, "abc").bytes();
    // In place of the length that stands before this.
    const auto absurdBefore = [&](const char* place) {
        std::string bytes = good;
        const std::string length = number(0xFFFFFFFF);
        return bytes.replace(good.find(place) - length.size(), length.size(), length);
    };
    expectAllClosed(trial, {{"a body of 4294967295 bytes", absurdBefore("abc")},
                            {"the name of a parameter of 4294967295 bytes", absurdBefore("REQUEST_METHOD")},
                            {"a value of 4294967295 bytes", absurdBefore("POST")}});
}

}  // namespace

std::vector<Rule> requestRules() {
    return {
        {"split-request", "Checklist", "a request that comes byte by byte is read",
         "read on until each field is whole: one read may bring half a number", splitRequest},
        {"start-page", "The request", "an empty PATH_INFO leads to the start page, as / does",
         "treat an empty PATH_INFO as /", startPage},
        {"methods", "The request", "every method gets an answer",
         "answer an unknown method with status 405 or 501, as a whole answer", methods},
        {"empty-values", "The request", "values may be empty", "take a text of length 0 for an empty value",
         emptyValues},
        {"long-values", "Limits", "values of 128 KB are read", "let values be as long as 256 KB", longValues},
        {"any-bytes", "Values", "values hold bytes of any kind",
         "read texts as bytes; no character set is announced", anyBytes},
        {"marks-inside", "Checklist", "marks and footers inside a field are content",
         "go by the lengths; never search for QUIL or END!", marksInside},
        {"stated-length", "The request", "the body is as long as its block, whatever CONTENT_LENGTH says",
         "read as many bytes as the block's length says; CONTENT_LENGTH is text from outside", statedLength},
        {"body-sizes", "The request", "bodies of 0 to 65537 bytes are read",
         "read on until the whole body came", bodySizes},
        {"large-bodies", "Limits", "bodies of 1 to 16 MB are read, or the connection is closed",
         "read the whole body before answering; close where it is longer than your limit", largeBodies},
        {"echo", "The request", "the body arrives unchanged", "take the body as it is: it may hold any bytes",
         echo},
        {"wrong-request", "When something goes wrong",
         "a wrong mark, version, type, name or footer ends the connection",
         "compare each of them, and close when one differs", wrongRequest},
        {"absurd-length", "When something goes wrong", "a length above every limit ends the connection",
         "have a limit for each length, and close when it is exceeded", absurdLengths},
    };
}
