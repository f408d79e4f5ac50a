#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <limits>

#include "Misbehave.h"
#include "Pages.h"
#include "client/Velarto.h"
#include "common/Completion.h"
#include "common/EndpointOption.h"
#include "common/Text.h"

namespace {

constexpr int kUsageError = 2;
constexpr std::uint32_t kSidLength = 4;
constexpr std::uint32_t kMaxTimeout = 24 * 60 * 60;
constexpr std::uint32_t kMaxConnections = 4096;
constexpr std::uint32_t kMaxPieceSize = 16 * 1024 * 1024;

std::string checkSid(const std::string& sid) {
    const bool fits = sid.size() == kSidLength && std::all_of(sid.begin(), sid.end(), [](unsigned char c) {
                          return c < 0x80 && std::isalnum(c);
                      });
    return fits ? "" : "wants exactly 4 letters or digits, not " + sid;
}

std::string helpEnd() {
    std::string text = "Sizes take the suffixes K, M and G (powers of 1024).\n\nPages, by PATH_INFO:\n";
    for (const Page& page : pages())
        text += format("  %-44s %s\n", (std::string(page.path) + page.arguments).c_str(), page.purpose);
    text +=
        "A path that ends in .zaf, .zhtml, .zml or .zcf is a document too.\n"
        "/blob: byte i, from 0, is (i * 2654435761 >> 24) & 0xFF.\n"
        "\n/misbehave?how=HOW, only with --misbehave; HOW is one of:\n";
    for (const Misbehaviour& how : misbehaviours())
        text += format("  %-44s %s\n", (std::string(how.name) + how.arguments).c_str(), how.purpose);
    text +=
        "&at=header, body or end moves it to another of the answer's messages. &cut=N on any page ends the\n"
        "connection after N bytes of the answer, frames included.\n"
        "\nExit status: 0 after SIGTERM or SIGINT, 1 when it cannot listen, 2 for a wrong command line.";
    return text;
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app("The development application server of Velarto: something for the gateway to talk to.",
                 "velarto-devserver");
    app.set_version_flag("--version",
                         std::string("velarto-devserver (Velarto) ") + VeClientGetBuildVersion());
    app.get_formatter()->column_width(34);
    app.footer(helpEnd);

    addEndpoint(app, "--listen", options.listen,
                "where to listen: HOST:PORT, [ADDRESS]:PORT or unix:PATH; port 0 picks a free one (default "
                "127.0.0.1:18155)");
    app.add_option("--sid", options.sid,
                   "server identifier, 4 letters or digits: user references carry it instead of the address")
        ->type_name("NAME")
        ->check(checkSid);

    const auto addNumber = [&app](const char* name, std::uint32_t& value, const char* unit,
                                  std::uint32_t from, std::uint32_t to, const char* purpose) {
        app.add_option(name, value, purpose)
            ->capture_default_str()
            ->type_name(unit)
            ->transform(CLI::AsSizeValue(false).description(""))
            ->check([from, to](const std::string& text) {
                const auto number = parseNumber(text);
                const bool fits = number && *number >= from && *number <= to;
                return fits ? "" : format("wants a number from %u to %u, not %s", from, to, text.c_str());
            });
    };
    addNumber("--timeout", options.timeout, "SECONDS", 1, kMaxTimeout, "how long a client may stay silent");
    addNumber("--connections", options.connections, "N", 1, kMaxConnections,
              "conversations at once; more clients wait");
    addNumber("--max-body", options.maxBody, "BYTES", 0, std::numeric_limits<std::uint32_t>::max(),
              "the longest request body or document that is taken");
    addNumber("--piece-size", options.pieceSize, "BYTES", 1, kMaxPieceSize,
              "size of the pieces that a response body is sent in");
    app.add_flag("--misbehave", options.misbehave, "serve the page /misbehave, and cut=N on every page");
    app.add_flag("-v,--verbose", options.verbose, "a line on standard output for every request");

    if (const auto status = complete(app, argc, argv)) return status;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    }
    return std::nullopt;
}
