#include "Html.h"

#include <algorithm>
#include <cstdint>

#include "common/Text.h"

namespace {

constexpr char kHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>
:root { color-scheme: light; }
body { margin: 0; background: #f6f7f9; color: #1d2733; font: 16px/1.5 system-ui, "DejaVu Sans", sans-serif; }
header, main, footer { max-width: 56rem; margin: 0 auto; padding: 0 1.25rem; }
header { padding-top: 1.25rem; }
header p { margin: 0; font-weight: 600; color: #4a5a6b; }
nav { margin: .5rem 0 0; display: flex; flex-wrap: wrap; gap: .25rem 1rem; }
a { color: #0b5cad; }
main { margin-top: 1.25rem; padding-bottom: 1.25rem; background: #fff; border: 1px solid #dbe1e8; border-radius: 8px; }
h1 { font-size: 1.5rem; margin: 1rem 0 .5rem; }
h2 { font-size: 1.125rem; margin: 1.5rem 0 .5rem; }
table { width: 100%; border-collapse: collapse; }
th, td { padding: .3rem .6rem; text-align: left; vertical-align: top; border-bottom: 1px solid #e6eaef; }
th { font-weight: 600; }
tbody th, code, pre, td { font: 14px/1.5 ui-monospace, "DejaVu Sans Mono", monospace; }
td, code { overflow-wrap: anywhere; white-space: pre-wrap; }
tbody th { width: 11rem; overflow-wrap: anywhere; color: #34475a; }
pre { padding: .75rem; background: #f1f4f7; border-radius: 6px; white-space: pre-wrap; overflow-wrap: anywhere; }
form { display: grid; gap: .6rem; max-width: 28rem; }
label { display: grid; gap: .2rem; }
input, textarea, button { font: inherit; padding: .4rem .6rem; border: 1px solid #b6c2cf; border-radius: 6px; }
button { justify-self: start; background: #0b5cad; border-color: #0b5cad; color: #fff; cursor: pointer; }
footer { padding-top: .75rem; padding-bottom: 1.5rem; font-size: .875rem; color: #4a5a6b; }
@media (max-width: 34rem) { tbody th { width: 8rem; font-size: 12px; } th, td { padding: .3rem .35rem; } }
</style>
)";

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The length of the UTF-8 sequence (RFC 3629) that the text begins with; 0 when there is none.
std::size_t utf8Length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) return 1;
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
    if (!std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length), isContinuation))
        return 0;
    const auto second = static_cast<unsigned char>(text[1]);
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool outside = (lead == 0xED && second >= 0xA0) || (lead == 0xF4 && second >= 0x90);
    return overlong || outside ? 0 : length;
}

void appendEscaped(std::string& html, char c) {
    switch (c) {
        case '&':
            html += "&amp;";
            break;
        case '<':
            html += "&lt;";
            break;
        case '>':
            html += "&gt;";
            break;
        case '"':
            html += "&quot;";
            break;
        case '\'':
            html += "&#39;";
            break;
        default:
            if (hasControlCharacter({&c, 1}) && c != '\n' && c != '\r' && c != '\t') {
                html += format("\\x%02X", static_cast<unsigned char>(c));
            } else {
                html += c;
            }
    }
}

}  // namespace

std::string escapeHtml(std::string_view text) {
    std::string html;
    html.reserve(text.size() + text.size() / 8);
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length == 0) {
            html += format("\\x%02X", static_cast<unsigned char>(text.front()));
        } else if (length == 1) {
            appendEscaped(html, text.front());
        } else {
            html += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return html;
}

std::string linkHtml(const std::string& address, const std::string& text) {
    return "<a href=\"" + escapeHtml(address) + "\">" + escapeHtml(text) + "</a>";
}

std::string tableHtml(const char* nameTitle, const char* valueTitle, const TableRows& rows) {
    std::string html = "<table>\n<thead><tr><th scope=\"col\">" + escapeHtml(nameTitle) +
                       "</th><th scope=\"col\">" + escapeHtml(valueTitle) + "</th></tr></thead>\n<tbody>\n";
    for (const auto& [name, value] : rows) {
        html +=
            "<tr><th scope=\"row\">" + escapeHtml(name) + "</th><td>" + escapeHtml(value) + "</td></tr>\n";
    }
    return html + "</tbody>\n</table>\n";
}

std::string renderHtml(const HtmlPage& page) {
    const std::string title = escapeHtml(page.title);
    return kHead + ("<title>" + title) +
           " - Velarto development server</title>\n</head>\n<body>\n<header>\n" +
           "<p>Velarto development server</p>\n<nav>" + page.navigationHtml +
           "</nav>\n</header>\n<main>\n<h1>" + title + "</h1>\n" + page.contentHtml + "</main>\n<footer>" +
           escapeHtml(page.footer) + "</footer>\n</body>\n</html>\n";
}
