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

const std::vector<Key>& knownKeys() {
    static const std::vector<Key> keys = {
        {"VELARTO_SERVER", ValueKind::kServers, "", "the application servers"},
        {"VELARTO_HOST", ValueKind::kText, "", "older form: the one host of the servers"},
        {"VELARTO_PORT", ValueKind::kPorts, "", "older form: their ports"},
        {"CLIENTIOTIMEOUT", ValueKind::kSeconds, "300", "seconds to wait for the server to read or write"},
        {"FORCE_SERVER_ARG_NAME", ValueKind::kText, "", "query argument that selects a server by its id"},
        {"PARSEFILEPATHS", ValueKind::kTruth, "no",
         "read \\ as / in the paths of files that the server asks for"},
        {"DOCUMENTPATH", ValueKind::kText, "", "for host programs: a folder of documents"},
        {"REGISTER_EXTNS", ValueKind::kExtensions, "zaf,zhtml,zml,zcf",
         "for host programs: extensions of the documents to serve"},
        {"SENDFULLHEADER", ValueKind::kTruth, "no", "for host programs: ask for the whole header"},
        {"ERROR_HTML", ValueKind::kReadableFile, "", "for host programs: file of the error page"},
        {"REPORTCLIENTERROR", ValueKind::kTruth, "no",
         "for host programs: the built-in error page all the same"},
    };
    return keys;
}

const Key* findKey(const std::string& name) {
    const auto& keys = knownKeys();
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&name](const Key& key) { return sameName(key.name, name); });
    return found != keys.end() ? &*found : nullptr;
}

const Key* nearestKey(const std::string& name) {
    constexpr std::size_t kLongestLine = 64;  // of a key that could be meant
    if (name.size() > kLongestLine) return nullptr;
    const auto& keys = knownKeys();
    const auto nearest = std::min_element(keys.begin(), keys.end(), [&name](const Key& a, const Key& b) {
        return distance(name, a.name) < distance(name, b.name);
    });
    return distance(name, nearest->name) <= std::max<std::size_t>(2, name.size() / 4) ? &*nearest : nullptr;
}
