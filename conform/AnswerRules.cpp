// The rules that the usual request's answer tells of, and its header.
#include "Rules.h"
#include "common/Text.h"

namespace {

void order(Trial& trial) {
    const auto& messages = trial.plain().messages;
    bool header = false;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const auto is = [&](std::uint32_t type) { return messages[i].type == type; };
        if (is(QUIL_HTTP_HEADER) && header) throw Broken(format("message %zu is a second header", i + 1));
        header = header || is(QUIL_HTTP_HEADER);
        if (is(QUIL_BODY_DATA) && !header)
            throw Broken(format("message %zu is a piece of the body; the header comes first", i + 1));
        if (is(QUIL_END) && !header) throw Broken(format("message %zu is the end; no header came", i + 1));
    }
}

// The headers of the usual request and of one that most servers answer with 404.
void expectOfHeaders(Trial& trial, const std::function<std::string(const Header&)>& fault) {
    const Answer missing =
        trial.wholeAnswer("a page that is not there", trial.request("/velarto-conform/none"));
    for (const Answer* answer : {&trial.plain(), &missing}) {
        const Header header = answer->header();
        const std::string text = fault(header);
        if (!text.empty())
            throw Broken(format("in the header with status %d %s", header.status(), text.c_str()));
    }
}

void headerFields(Trial& trial) {
    expectOfHeaders(trial, [](const Header& header) { return header.fault(); });
}

void statusField(Trial& trial) {
    expectOfHeaders(trial, [](const Header& header) -> std::string {
        const std::string* field = header.find("Status");
        if (field == nullptr) return header.status() == 200 ? "" : "there is no field Status";
        const bool repeats = field->substr(0, 3) == std::to_string(header.status());
        return repeats ? "" : "the field Status is \"" + printable(*field) + "\"";
    });
}

void contentLength(Trial& trial) {
    const Header header = trial.plain().header();
    const std::size_t size = trial.plain().body().size();
    const std::string* field = header.find("Content-Length");
    if (!header.allowsBody()) {
        if (size != 0) throw Broken(format("status %d has a body of %zu bytes", header.status(), size));
    } else if (field != nullptr && parseNumber(*field) != size) {
        throw Broken(format("Content-Length is %s, the body has %zu bytes", printable(*field).c_str(), size));
    }
}

void head(Trial& trial) {
    Request request = trial.request();
    request[QUIL_PARAM_REQUEST_METHOD] = "HEAD";
    const std::size_t size = trial.wholeAnswer("HEAD", request).body().size();
    if (size != 0) throw Broken(format("the answer to HEAD has a body of %zu bytes", size));
}

}  // namespace

std::vector<Rule> answerRules() {
    return {
        {"whole-request", "Checklist", "the whole request is read before the first message is sent",
         "read the footer too, then answer"},
        {"frame-mark", "Messages", "each message begins with the frame mark",
         "begin each message with 51 55 49 4C"},
        {"version", "Messages", "the version follows the mark",
         "write FF FD FF FD after the mark, before the type"},
        {"type", "Messages", "a server sends types 2, 4, 6 and 7",
         "write the type as 4 bytes, most significant first, after the version"},
        {"length", "Values", "a text has its length before it",
         "write the number of the text's bytes before it, 4 bytes, most significant first"},
        {"footer", "Messages", "each message ends with the footer",
         "end each message with 45 4E 44 21, right after the bytes that its length counts"},
        {"whole-message", "When something goes wrong", "no message breaks off",
         "send as many bytes as the length says, and the footer, before closing"},
        {"one-at-a-time", "Messages", "nothing is sent before the answer to the last message was read",
         "after types 4 and 6 read 20 bytes, after type 2 the file reply, and only then send the next "
         "message"},
        {"end", "Messages", "the end message ends the answer", "send type 7 before closing"},
        {"nothing-after-end", "Messages", "nothing follows the end",
         "send the end as 16 bytes, without a text or a length, and nothing after it"},
        {"closes", "When something goes wrong", "the server closes after the end",
         "close the connection once the end was sent"},
        {"in-time", "Limits", "the server is not silent for too long",
         "never wait for an end of file: the request ends with its fields. If the page takes long, raise "
         "--timeout"},
        {"status-line", "Header", "the header begins with a status line",
         "begin the header with \"HTTP/1.0 200 OK\\r\\n\" or the like"},
        {"order", "Messages", "one header, then the pieces of the body, then the end",
         "send the header once, before all pieces", order},
        {"header-fields", "Header", "fields and an empty line follow the status line, and nothing else",
         "end each line with CR LF and the header with an empty line; send the body in messages of type 4",
         headerFields},
        {"status-field", "Header", "a status other than 200 stands in a field Status too",
         "repeat the status line's code and reason in a field Status", statusField},
        {"content-length", "Body",
         "the body is as long as Content-Length says, and has none where HTTP has none",
         "count the body's bytes, not its characters; send no piece with status 204 or 304", contentLength},
        {"head", "Body", "the answer to HEAD has no body", "send no pieces when REQUEST_METHOD is HEAD",
         head},
    };
}
