// The rules about cookies and the user reference.
#include <algorithm>
#include <cctype>

#include "Rules.h"
#include "common/Text.h"

namespace {

constexpr std::string_view kReference = "Velarto_UserReference=";
constexpr std::size_t kOwnLength = 24;  // characters of a reference that are the server's own
constexpr std::size_t kSidLength = 4;
constexpr std::size_t kRouteLength = 12;

void cookies(Trial& trial) {
    const std::string own = "VelartoClient=conform; Velarto_CGIIP=7F00000146EB";
    for (const char* browsers : {"", "c=2; ", "a=\"; ", "VelartoClient=other; Velarto_CGIIP=0A00000546EB; ",
                                 "; ;=;c; =x;", "c=\xFF\x01; ", "Velarto_UserReference=; ",
                                 "Velarto_UserReference=0A00000546EBabcdefghijklmnopqrstuvwx; "}) {
        Request request = trial.request();
        request[QUIL_PARAM_HTTP_COOKIE] = browsers + own;
        trial.wholeAnswer("the cookies \"" + printable(request[QUIL_PARAM_HTTP_COOKIE]) + "\"", request);
    }
}

// What the page gives a browser that sends these cookies.
std::string referenceFor(const Trial& trial, const std::string& cookies) {
    const Options& options = trial.options();
    Request request = trial.request(options.login.empty() ? options.path : options.login);
    request[QUIL_PARAM_HTTP_COOKIE] = cookies;
    const Header header = trial.wholeAnswer("the page that gives a reference", request).header();
    for (const auto& [name, value] : header.fields()) {
        if (!startsWithIgnoringCase(name, "Set-Cookie") || value.rfind(kReference, 0) != 0) continue;
        return value.substr(kReference.size(), value.find(';') - kReference.size());
    }
    throw Skipped("no Velarto_UserReference was set; --login names a page that does");
}

void userReference(Trial& trial) {
    const std::string reference = referenceFor(trial, "VelartoClient=conform");
    const std::string shown = "the reference \"" + printable(reference) + "\"";
    if (reference.size() != kSidLength + kOwnLength && reference.size() != kRouteLength + kOwnLength)
        throw Broken(format("%s has %zu characters, not 28 or 36", shown.c_str(), reference.size()));
    if (!std::all_of(reference.begin(), reference.end(),
                     [](unsigned char c) { return c < 0x80 && std::isalnum(c); }))
        throw Broken(shown + " has other characters than letters and digits");
    if (reference.size() == kSidLength + kOwnLength) return;

    std::string route;
    for (const std::string& octet : split(trial.server().address, '.'))
        route += format("%02X", static_cast<unsigned>(parseNumber(octet).value_or(0)));
    route += format("%04X", trial.server().port);
    if (!startsWithIgnoringCase(reference, route))
        throw Broken(shown + " does not begin with " + route + ", this server's address and port");
}

void forgedRoute(Trial& trial) {
    for (const std::string route : {"0A0B0C0D1234", "evil"}) {
        const std::string cookies = "Velarto_CGIIP=" + route + "; VelartoClient=conform";
        const std::string reference = referenceFor(trial, cookies);
        if (reference.rfind(route, 0) == 0)
            throw Broken("for \"" + cookies + "\" the reference is \"" + printable(reference) + "\"");
    }
}

}  // namespace

std::vector<Rule> cookieRules() {
    return {
        {"cookies", "Cookies of the gateway", "cookies of every form get an answer",
         "split HTTP_COOKIE at each ; and pass over what is none of yours", cookies},
        {"user-reference", "The user reference", "a user reference leads back to this server",
         "send 28 or 36 letters and digits, which begin with the server's id, or its address and port in "
         "hexadecimal",
         userReference},
        {"forged-route", "Cookies of the gateway",
         "a route in front of the last VelartoClient is not believed",
         "build references from what the server knows about itself", forgedRoute},
    };
}
