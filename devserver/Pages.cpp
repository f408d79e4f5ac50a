#include "Pages.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <string_view>

#include "Html.h"
#include "Misbehave.h"
#include "common/Text.h"
#include "protocol/QuilRequest.h"

namespace {

constexpr char kUserReference[] = "Velarto_UserReference";
constexpr std::uint64_t kMaxPiece = std::uint64_t{64} << 20;
constexpr std::uint64_t kMaxPieces = 1'000'000;
constexpr std::uint64_t kMaxDelay = 60'000;
constexpr std::uint64_t kMaxBlob = std::uint64_t{1} << 40;

// ---- parts that several pages have ----

std::string paragraph(const std::string& text) {
    return "<p>" + escapeHtml(text) + "</p>\n";
}

std::string navigation(const Exchange& exchange) {
    std::string html;
    for (const Page& page : pages()) {
        const std::string name = page.path[1] == '\0' ? "request" : page.path + 1;
        html += linkHtml(exchange.link(std::string(page.path) + page.sample), name) + " ";
    }
    return html;
}

std::string pageList(const Exchange& exchange) {
    std::string html = "<h2>The pages</h2>\n<ul>\n";
    for (const Page& page : pages()) {
        html += "<li>" + linkHtml(exchange.link(std::string(page.path) + page.sample), page.path) + " " +
                escapeHtml(page.purpose) + "</li>\n";
    }
    return html + "</ul>\n";
}

void showHtml(Exchange& exchange, ResponseHeader header, const std::string& title,
              const std::string& contentHtml) {
    HtmlPage page;
    page.title = title;
    page.navigationHtml = navigation(exchange);
    page.contentHtml = contentHtml;
    page.footer = "answered by " + exchange.server.text() + ", process " + std::to_string(::getpid());
    exchange.response.send(std::move(header), renderHtml(page));
}

std::string argumentTable(const Arguments& arguments) {
    TableRows rows(arguments.all().begin(), arguments.all().end());
    return rows.empty() ? "<p>None.</p>\n" : tableHtml("Name", "Value", rows);
}

// The beginning of a content, for people.
std::string preview(std::string_view bytes) {
    constexpr std::size_t kLimit = 2000;
    return std::string(bytes.substr(0, kLimit)) + (bytes.size() > kLimit ? " ..." : "");
}

std::string countBytes(std::size_t size) {
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

// ---- the pages ----

void showRequest(Exchange& exchange) {
    const Request& request = exchange.request;
    TableRows rows;
    for (std::uint32_t id = 0; id < QUIL_PARAM_NONE; ++id)
        rows.emplace_back(FindQuilParamName(static_cast<TQUILReqParamID>(id)), request.parameters[id]);
    const GatewayCookies gateway(request[QUIL_PARAM_HTTP_COOKIE]);
    std::string fileTime = "No file is there, or no path was given.";
    if (request.fileTime != 0)
        fileTime = format("Modified %u seconds after 1970-01-01 UTC.", request.fileTime);
    showHtml(exchange, ResponseHeader(), "The request as it arrived",
             tableHtml("Parameter", "Value", rows) + "<h2>Cookies of the gateway</h2>\n" +
                 tableHtml("Cookie", "Value", {{"client", gateway.client}, {"route", gateway.route}}) +
                 "<h2>Body</h2>\n" + paragraph(countBytes(request.body.size())) +
                 "<h2>File in PATH_TRANSLATED</h2>\n" + paragraph(fileTime) + pageList(exchange));
}

std::string multipartTable(const std::vector<FormPart>& parts) {
    TableRows rows;
    for (const FormPart& part : parts) {
        const std::string type = part.type.empty() ? "" : " (" + part.type + ")";
        const std::string file =
            part.fileName.empty() ? "" : part.fileName + type + ", " + countBytes(part.content.size()) + "\n";
        rows.emplace_back(part.name, file + preview(part.content));
    }
    return tableHtml("Name", "Value", rows);
}

std::string bodyHtml(const Request& request) {
    const std::string& type = request[QUIL_PARAM_CONTENT_TYPE];
    if (startsWithIgnoringCase(type, "application/x-www-form-urlencoded")) {
        return argumentTable(Arguments(request.body));
    }
    if (startsWithIgnoringCase(type, "multipart/form-data")) {
        return multipartTable(parseMultipart(type, request.body));
    }
    return "<pre>" + escapeHtml(preview(request.body)) + "</pre>\n";
}

void showForm(Exchange& exchange) {
    const std::string target = escapeHtml(exchange.link("/form"));
    const std::string fields =
        "<label>Name <input name=\"name\" value=\"Ada &amp; Grace\"></label>\n"
        "<label>Message <textarea name=\"message\" rows=\"3\">&lt;b&gt;Any "
        "text&lt;/b&gt;</textarea></label>\n";
    const std::string upload =
        "<label>Comment <input name=\"comment\"></label>\n"
        "<label>File <input type=\"file\" name=\"file\"></label>\n";
    const auto form = [&](const char* title, const char* attributes, const std::string& content) {
        return std::string("<h2>") + title + "</h2>\n<form action=\"" + target + "\" " + attributes + ">\n" +
               content + "<button>Send</button>\n</form>\n";
    };
    const Request& request = exchange.request;
    std::string html = "<h2>What arrived</h2>\n";
    html += paragraph(request[QUIL_PARAM_REQUEST_METHOD] + ", a body of " + countBytes(request.body.size()));
    html += "<h2>In the query string</h2>\n" + argumentTable(exchange.query);
    if (!request.body.empty()) html += "<h2>In the body</h2>\n" + bodyHtml(request);
    html += form("By GET", "method=\"get\"", fields);
    html += form("By POST", "method=\"post\"", fields);
    html += form("A file by POST", "method=\"post\" enctype=\"multipart/form-data\"", upload);
    showHtml(exchange, ResponseHeader(), "Form", html);
}

void echo(Exchange& exchange) {
    ResponseHeader header;
    header.type = exchange.request[QUIL_PARAM_CONTENT_TYPE];
    if (header.type.empty() || hasControlCharacter(header.type)) header.type = "application/octet-stream";
    header.fields.emplace_back("X-Content-Type-Options", "nosniff");
    exchange.response.send(std::move(header), exchange.request.body);
}

// Where the user's next requests belong (the SID, or address and port), then 24 characters for the user. Empty when
// nothing can name this server: it has neither an SID nor an IPv4 address.
std::string newUserReference(const Identity& server) {
    std::string reference = server.sid;
    if (reference.empty()) {
        std::uint32_t o[4] = {}, port = 0;
        if (std::sscanf(server.endpoint.c_str(), "%u.%u.%u.%u:%u", &o[0], &o[1], &o[2], &o[3], &port) != 5)
            return "";
        reference = format("%02X%02X%02X%02X%04X", o[0], o[1], o[2], o[3], port);
    }
    std::random_device random;
    for (int word = 0; word < 3; ++word)
        reference += format("%08X", random());
    return reference;
}

void login(Exchange& exchange) {
    const std::string reference = newUserReference(exchange.server);
    if (reference.empty()) {
        showHtml(exchange, ResponseHeader(), "Not logged in",
                 paragraph("A reference could not lead you back to " + exchange.server.endpoint +
                           ": start the server with --sid."));
        return;
    }
    ResponseHeader header;
    header.fields.emplace_back(
        "Set-Cookie", std::string(kUserReference) + "=" + reference + "; Path=/; HttpOnly; SameSite=Lax");
    const char* meaning = exchange.server.sid.empty()
                              ? "Its first 12 digits are the address and the port of this server."
                              : "Its first 4 characters are the name of this server.";
    const char* effect =
        "A gateway that knows several servers now sends you back to this one: open any other page and look "
        "at "
        "its last line.";
    showHtml(exchange, std::move(header), "Logged in",
             paragraph("Your user reference, in the cookie " + std::string(kUserReference) + ":") +
                 "<p><code>" + escapeHtml(reference) + "</code></p>\n" + paragraph(meaning) +
                 paragraph(effect));
}

// The text with each {{PARAMETER}} replaced by that parameter of the request, and {{ANSWERED_BY}} by this
// server. Other places stay.
std::string fillIn(std::string_view text, const Exchange& exchange) {
    constexpr std::string_view kOpen = "{{";
    constexpr std::string_view kClose = "}}";
    std::string result;
    for (;;) {
        const std::size_t open = text.find(kOpen);
        const std::size_t close = open == text.npos ? text.npos : text.find(kClose, open);
        if (close == text.npos) return result.append(text);
        const std::size_t start = text.rfind(kOpen, close);  // the nearest: "{{ {{PLUGIN}}" holds one place
        const std::string name(text.substr(start + kOpen.size(), close - start - kOpen.size()));
        const TQUILReqParamID id = FindQuilParamID(name.c_str());
        result.append(text.substr(0, start));
        if (id != QUIL_PARAM_NONE) {
            result += escapeHtml(exchange.request[id]);
        } else if (name == "ANSWERED_BY") {
            result += escapeHtml(exchange.server.text());
        } else {
            result.append(text.substr(start, close + kClose.size() - start));
        }
        text.remove_prefix(close + kClose.size());
    }
}

void showDocument(Exchange& exchange) {
    const std::string& path = exchange.request[QUIL_PARAM_PATH_TRANSLATED];
    std::string document;
    if (!path.empty() && exchange.conversation.requestFile(path, document)) {
        return exchange.response.send(ResponseHeader(), fillIn(document, exchange));
    }
    std::string html = "<p>The request carries no PATH_TRANSLATED, so no file was asked for.</p>\n";
    if (!path.empty()) {
        html = "<p>The gateway was asked for this file, and has none to give:</p>\n<pre>" + escapeHtml(path) +
               "</pre>\n";
    }
    html +=
        "<p>The web server must set <code>PATH_TRANSLATED</code> to the document's path: usually its "
        "document "
        "root followed by <code>PATH_INFO</code>, the part of the address after the gateway's own name. The "
        "path must name a regular file that is not empty and that the web server's user can read, on the "
        "machine of the gateway.</p>\n";
    showHtml(exchange, ResponseHeader(404), "No such document", html);
}

void stream(Exchange& exchange) {
    constexpr std::uint64_t kPieces = 10;
    constexpr std::uint64_t kSize = 64;
    const std::uint64_t pieces = exchange.query.number("pieces", kPieces, 0, kMaxPieces);
    const std::uint64_t size = exchange.query.number("size", kSize, 0, kMaxPiece);
    const std::uint64_t delay = exchange.query.number("delay", 0, 0, kMaxDelay);
    ResponseHeader header;
    header.type = "text/plain";
    header.length = pieces * size;
    if (!exchange.response.begin(std::move(header))) return;
    for (std::uint64_t i = 1; i <= pieces; ++i) {
        std::string piece = "piece " + std::to_string(i) + " of " + std::to_string(pieces) + " ";
        piece.resize(static_cast<std::size_t>(size), '.');
        if (size != 0) piece.back() = '\n';
        if (i > 1) exchange.conversation.pause(static_cast<std::uint32_t>(delay));
        exchange.response.writePiece(piece);
    }
}

void status(Exchange& exchange) {
    constexpr std::uint64_t kFirst = 100;
    constexpr std::uint64_t kLast = 999;
    constexpr std::uint32_t kDefault = 200;
    ResponseHeader header(static_cast<std::uint32_t>(exchange.query.number("code", kDefault, kFirst, kLast)));
    header.reason = exchange.query.text("reason", header.reason);
    const bool isRedirect = header.code >= 300 && header.code < 400 && header.code != 304;
    const std::string location = exchange.query.text("location", isRedirect ? exchange.link("/") : "");
    if (hasControlCharacter(header.reason) || hasControlCharacter(location)) {
        throw BadArgument("reason and location must not hold control characters.");
    }
    std::string html = paragraph("The server answered with the status you asked for.");
    if (!location.empty()) {
        header.fields.emplace_back("Location", location);
        html += "<p>It points to " + linkHtml(location, location) + ".</p>\n";
    }
    const std::string title = std::to_string(header.code) + " " + header.reason;
    showHtml(exchange, std::move(header), title, html);
}

void blob(Exchange& exchange) {
    constexpr std::uint64_t kSize = 1024;
    constexpr std::uint32_t kMultiplier = 2654435761;
    ResponseHeader header;
    header.type = "application/octet-stream";
    header.length = exchange.query.number("size", kSize, 0, kMaxBlob);
    std::uint64_t left = *header.length;
    if (!exchange.response.begin(std::move(header))) return;
    std::string piece(exchange.options.pieceSize, '\0');
    for (std::uint32_t product = 0; left > 0; left -= piece.size()) {
        if (left < piece.size()) piece.resize(static_cast<std::size_t>(left));
        for (char& byte : piece) {
            byte = static_cast<char>(product >> 24);
            product += kMultiplier;  // modulo 2^32: that is all byte 3 depends on
        }
        exchange.response.writePiece(piece);
    }
}

void showMissingPage(Exchange& exchange) {
    showHtml(exchange, ResponseHeader(404), "No such page",
             "<p>There is no page <code>" + escapeHtml(exchange.request.path()) + "</code>.</p>\n" +
                 pageList(exchange));
}

// "/document", everything below it, and whatever ends as the gateway's own kinds of documents do.
bool isDocument(const std::string& path) {
    constexpr std::string_view kFolder = "/document/";
    const std::string_view extension = std::string_view(path).substr(std::min(path.rfind('.'), path.size()));
    return path.compare(0, kFolder.size(), kFolder) == 0 || extension == ".zaf" || extension == ".zhtml" ||
           extension == ".zml" || extension == ".zcf";
}

void show(Exchange& exchange) {
    const std::string path = exchange.request.path();
    if (isDocument(path)) return showDocument(exchange);
    if (path == "/misbehave" && exchange.options.misbehave) return misbehave(exchange);
    const auto page =
        std::find_if(pages().begin(), pages().end(), [&](const Page& p) { return path == p.path; });
    if (page == pages().end()) return showMissingPage(exchange);
    page->show(exchange);
}

}  // namespace

const std::vector<Page>& pages() {
    static const std::vector<Page> kPages = {
        {"/", "", "the 25 parameters of the request and the size of its body", "", showRequest},
        {"/form", "", "forms by GET and POST, a file upload; shows what arrived", "", showForm},
        {"/login", "", "issues the user reference as a cookie", "", login},
        {"/document", "", "the file in PATH_TRANSLATED, {{PARAMETER}} places filled in", "", showDocument},
        {"/stream", "?pieces=N&size=BYTES&delay=MS", "a body in so many pieces, each one message",
         "?pieces=20&size=64&delay=100", stream},
        {"/status", "?code=NNN&reason=TEXT&location=URL", "any status; redirects too", "?code=404", status},
        {"/blob", "?size=BYTES", "repeatable bytes", "?size=1000000", blob},
        {"/echo", "", "the bytes of the body as they came", "", echo},
    };
    return kPages;
}

void answer(Exchange& exchange) {
    try {
        if (exchange.options.misbehave && exchange.query.find("cut") != nullptr) {
            exchange.conversation.cutAfter(
                exchange.query.number("cut", 0, 0, std::numeric_limits<std::uint32_t>::max()));
        }
        show(exchange);
    } catch (const BadArgument& mistake) {
        showHtml(exchange, ResponseHeader(400), "Bad request", paragraph(mistake.what()));
    }
    exchange.response.end();
}
