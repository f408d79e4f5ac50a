// Header: the header of an answer, taken apart.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

class Header {
  public:
    explicit Header(const std::string& text);

    int status() const { return status_; }  // 0: there is no good status line
    // What is wrong with the rest; empty when nothing is.
    const std::string& fault() const { return fault_; }
    // The first field of that name, letter case ignored; null when there is none.
    const std::string* find(std::string_view name) const;
    const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }

    bool allowsBody() const;  // RFC 9110: 1xx, 204 and 304 have none

  private:
    int status_ = 0;
    std::string fault_;
    std::vector<std::pair<std::string, std::string>> fields_;
};
