// velarto-config try: one request, made as the gateway makes it.
#include <algorithm>
#include <iostream>
#include <memory>

#include "Absence.h"
#include "Command.h"
#include "Configuration.h"
#include "TryClient.h"
#include "TryRequest.h"
#include "cgi/VeHttpResponse.h"
#include "client/ConfigClnt.h"
#include "client/QuilClientError.h"
#include "common/Text.h"

namespace {

// ---- the answer ----

// Takes the server's messages: writes the answer as the gateway does, or keeps it for a document.
class Answer {
  public:
    Answer(const TryOptions& options, bool kept, Steps& steps)
        : isNph_(options.client.rfind("nph-", 0) == 0), kept_(kept), steps_(steps) {}

    // The dispatch callback; user is an Answer.
    static bool take(QuilClient& /*client*/, TQUILReqType type, const char* data, std::uint32_t length,
                     void* user) {
        return static_cast<Answer*>(user)->take(type, {data, length});
    }

    const std::string& fault() const { return fault_; }
    int status() const { return status_; }  // 0: there was no header
    const std::string& header() const { return header_; }
    const std::string& body() const { return body_; }

  private:
    bool take(TQUILReqType type, const std::string& data) {
        const Json size{{"size", data.size()}};
        switch (type) {
            case QUIL_HTTP_HEADER:
                return takeHeader(data);
            case QUIL_BODY_DATA:
                steps_.note("piece", format("%zu bytes", data.size()), size);
                return put(data, body_);
            case QUIL_FILE_REQUEST:  // the client has told it
                return true;
            case QUIL_END:
                steps_.note("end", "the answer is complete", Json::object());
                return true;
            default:
                steps_.note("message", format("of the unknown type %u", static_cast<unsigned>(type)),
                            Json{{"type", static_cast<unsigned>(type)}});
                return true;
        }
    }

    bool takeHeader(const std::string& data) {
        void* response = VeHttpParseResponse(data.c_str(), false);
        if (response == nullptr) {
            fault_ = "the header has no valid status line";
            return false;
        }
        status_ = VeHttpGetStatusCode(response);
        const std::string fields = VeHttpFirstResponseHeader(response);
        VeHttpReleaseResponse(response);
        steps_.note("header", format("%zu bytes, status %d", data.size(), status_),
                    Json{{"size", data.size()}, {"status", status_}});
        return put(isNph_ ? data : fields, header_);
    }

    bool put(const std::string& bytes, std::string& kept) {
        if (kept_) {
            kept += bytes;
            return true;
        }
        return static_cast<bool>(std::cout << bytes << std::flush);
    }

    const bool isNph_;
    const bool kept_;
    Steps& steps_;
    std::string fault_;
    int status_ = 0;
    std::string header_;
    std::string body_;
};

std::string base64(const std::string& bytes) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(bytes.size() - i, 3);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += k <= count ? kDigits[group >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

bool isUtf8(const std::string& text) {
    try {
        Json(text).dump();
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

// ---- the request ----

struct Outcome {
    int code = 0;  // the gateway's error, 0: none
    std::string step;
    std::string text;
};

void fill(TQuilRequest& record, const TryOptions& options, Steps& steps) {
    Variables variables = variablesOf(options);
    if (options.data) readBody(*options.data, record.postArgs());
    const std::uint32_t size = record.postArgs().GetUsableDataSize();
    variables["CONTENT_LENGTH"] = std::to_string(size);
    variables["COMMANDLINE"] = options.client;

    for (const auto& [name, value] : variables) {
        const bool passed = record.SetParamAttribute(name.c_str(), value.c_str());
        steps.note("variable", name + "=" + value + (passed ? "" : " (the gateway does not pass it on)"),
                   Json{{"name", name}, {"value", value}, {"passed", passed}});
    }
    steps.note("body", format("%u bytes", size), Json{{"size", size}});
}

// Tells of those that the gateway cannot use, or leaves out.
void inspectServers(Stanza& section, const std::string& client, Steps& steps) {
    const ServerList servers(section);
    const Absences absences(ConnectionSettings(section, client.c_str()));
    if (servers.size() == 0)
        throw Failure("the client '" + shown(client) + "' has no server list (the gateway's error 601)");
    for (std::uint32_t i = 0; i < servers.size(); ++i) {
        const std::string text = textOf(servers, i);
        const ServerEntry entry(text.c_str());
        const std::string fault = faultOf(entry), absence = absences.of(entry);
        if (!fault.empty())
            steps.note("server", "'" + text + "' cannot be used: " + fault,
                       Json{{"entry", text}, {"fault", fault}});
        if (!absence.empty())
            steps.note("server", "'" + text + "' is " + absence, Json{{"entry", text}, {"absence", absence}});
    }
}

// The gateway's steps from the choice of the server to the end of the answer.
Outcome converse(const TryOptions& options, TryClient& client, TQuilRequest& record, Stanza& section,
                 Steps& steps, Answer& answer) {
    if (!client.ConnectToQuilServer(&record, &section, options.client.c_str(), true))
        return {CLIENT_ERR_CONNECT, "connect", "no server could be reached: " + client.fault()};
    if (!client.SendQuilRequest(&record))
        return {CLIENT_ERR_SEND, "send", "the request could not be sent: " + client.fault()};
    steps.note("sent", std::to_string(client.sent()) + " bytes", Json{{"size", client.sent()}});
    if (client.DispatchQuilRequests(Answer::take, &answer, IsTrueValue(section, key::PARSEFILEPATHS)))
        return {};
    if (!std::cout) throw Failure("the output cannot be written");
    std::string reason = answer.fault().empty() ? client.fault() : answer.fault();
    if (reason.empty()) reason = "the server sent something that is no message";
    return {CLIENT_ERR_DISPATCH, "answer", "the answer broke off: " + reason};
}

Json documentOf(const TryOptions& options, const Steps& steps, const Answer& answer, const Outcome& outcome) {
    Json document{{"client", options.client}, {"steps", steps.document()}};
    if (answer.status() != 0) {
        document["status"] = answer.status();
        document["header"] = answer.header();
        const bool isText = isUtf8(answer.body());
        document[isText ? "body" : "body-base64"] = isText ? answer.body() : base64(answer.body());
    }
    if (outcome.code != 0)
        document["error"] = Json{{"code", outcome.code}, {"step", outcome.step}, {"text", outcome.text}};
    return document;
}

int tryRequest(const Request& request, const TryOptions& options) {
    Stanza section = stanzaOf(Snapshot::faultless(request).client(options.client));
    Steps steps(options.verbose, request.json);
    inspectServers(section, options.client, steps);
    TQuilRequest record;
    fill(record, options, steps);

    TryClient client(steps);
    client.SetReadWriteTimeout(ReadWriteTimeoutOf(section));
    Answer answer(options, request.json, steps);
    const Outcome outcome = converse(options, client, record, section, steps, answer);
    steps.note(
        "total",
        std::to_string(client.sent()) + " bytes sent, " + std::to_string(client.received()) + " received",
        Json{{"sent", client.sent()}, {"received", client.received()}});
    if (request.json) {
        print(documentOf(options, steps, answer, outcome));
    } else if (outcome.code != 0) {
        std::cout.flush();
        std::cerr << "velarto-config: " << outcome.step << ": " << shown(outcome.text)
                  << " (the gateway's error " << outcome.code << ")\n";
    }
    return outcome.code == 0 ? kFine : kFindings;
}

}  // namespace

void addTry(CLI::App& app, Request& request) {
    const auto options = std::make_shared<TryOptions>();
    CLI::App* command =
        app.add_subcommand("try", "Make one request as the gateway would, and print the answer");
    command->add_option("CLIENT", options->client, "the client")->required();
    command
        ->add_option("URL-PATH", options->urlPath,
                     "what stands after the program's name in the URL: /shop/page?a=b or ?a=b")
        ->required();
    command->add_option("--data", options->data, "the request's body; - is standard input")
        ->type_name("FILE");
    command->add_option("--header", options->headers, "a header of the request; may be given more than once")
        ->type_name("NAME:VALUE")
        ->allow_extra_args(false);
    command->add_option("--method", options->method, "the method (default GET, with a body POST)")
        ->type_name("M");
    command
        ->add_option("--document-root", options->documentRoot,
                     "the web server's folder of documents, for PATH_TRANSLATED; without it there is none")
        ->type_name("DIR");
    command->add_flag("-v,--verbose", options->verbose, "tell each step on standard error");
    command->footer(
        "The answer is written as the gateway writes it: with its status line when CLIENT begins with nph-,\n"
        "else without.\n"
        "Exit status: 0 when an answer came, whatever its HTTP status; 1 when none came, or not all of it;\n"
        "2 for a wrong command line or a file that cannot be used.");
    command->callback([&request, options] {
        request.command = [&request, options] { return tryRequest(request, *options); };
    });
}
