#include "Keys.h"

#include <algorithm>
#include <cctype>
#include <numeric>

#include "Outline.h"

namespace {

// How many letters must be changed, put in, left out or swapped with their neighbour to make one text the
// other; letter case does not count.
std::size_t distance(const std::string& a, const std::string& b) {
    const auto same = [](char x, char y) {
        return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
    };
    std::vector<std::size_t> before, previous, row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        before = previous;
        previous = row;
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = same(a[i - 1], b[j - 1]) ? 0 : 1;
            row[j] = std::min({previous[j] + 1, row[j - 1] + 1, previous[j - 1] + changed});
            if (i > 1 && j > 1 && same(a[i - 1], b[j - 2]) && same(a[i - 2], b[j - 1]))
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row.back();
}

}  // namespace

const ClientKey* findKey(const std::string& name) {
    for (const ClientKey* key : kClientKeys) {
        if (sameName(key->name, name)) return key;
    }
    return nullptr;
}

const ClientKey* nearestKey(const std::string& name) {
    constexpr std::size_t kLongestLine = 64;  // of a key that could be meant
    if (name.size() > kLongestLine) return nullptr;
    const auto isNearer = [&name](const ClientKey* a, const ClientKey* b) {
        return distance(name, a->name) < distance(name, b->name);
    };
    const ClientKey* nearest = *std::min_element(std::begin(kClientKeys), std::end(kClientKeys), isNearer);
    return distance(name, nearest->name) <= std::max<std::size_t>(2, name.size() / 4) ? nearest : nullptr;
}
