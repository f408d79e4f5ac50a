// The look of the pages, and what it takes to put any text into one.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Safe inside an element and inside a quoted attribute. Bytes that HTML cannot hold (control characters, what
// is no UTF-8) show as \xNN.
std::string escapeHtml(std::string_view text);

// Pieces of HTML; texts are escaped, arguments called "html" are taken as they stand.
std::string linkHtml(const std::string& address, const std::string& text);
using TableRows = std::vector<std::pair<std::string, std::string>>;  // name, value
std::string tableHtml(const char* nameTitle, const char* valueTitle, const TableRows& rows);

struct HtmlPage {
    std::string title;
    std::string navigationHtml;
    std::string contentHtml;
    std::string footer;
};

// A whole HTML5 document.
std::string renderHtml(const HtmlPage& page);
