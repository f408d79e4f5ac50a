#include "Findings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "Command.h"
#include "Configuration.h"
#include "Keys.h"
#include "client/ConfigClnt.h"
#include "common/Text.h"
#include "platform/FileContent.h"

namespace {

bool beginsWithOneOf(const std::string& text, const char* characters) {
    return !text.empty() && std::strchr(characters, text[0]) != nullptr;
}

bool isOneOf(const std::string& text, const std::vector<std::string>& words) {
    return std::any_of(words.begin(), words.end(),
                       [&text](const std::string& word) { return sameName(text, word); });
}

bool endsInReturn(std::string_view text) {
    return !text.empty() && text.back() == '\r';
}

// Without the blanks, and the carriage return of a line from elsewhere, at its end.
std::string withoutEnd(const std::string& text) {
    return text.substr(0, text.find_last_not_of(" \t\r") + 1);
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string quoted(const std::string& text) {
    return "'" + shown(text) + "'";
}

// Whether the name can stand as it is before the = of a line.
bool canBeListed(const std::string& name) {
    return !beginsWithOneOf(name, " \t") && name.find_first_of(";=[\\") == std::string::npos &&
           !hasControlCharacter(name);
}

// Character i of the text, as near as can be told.
Place placeIn(const PlacedText& text, std::size_t i) {
    Place place = text.place;
    if (text.isVerbatim) place.column += static_cast<std::uint32_t>(i);
    return place;
}

constexpr char kEndLines[] =
    "end the lines with a line feed alone; sed -i 's/\\r$//' does that for the whole file";

// One look over an outline; each function below is about one kind of thing in it.
class Inspection {
  public:
    explicit Inspection(const Outline& outline)
        : outline_(outline), directory_(outline.find(kDirectoryStanza)) {}

    std::vector<Finding> run() {
        for (const SyntaxError& error : outline_.errors())
            inspectError(error);
        inspectDirectory();
        if (outline_.droppedKey().line != 0)
            warn(outline_.droppedKey(), "the gateway ignores the last line: it has no = and no line feed",
                 "write KEY=VALUE and end the line, or remove it");
        for (const OutlineSection& section : outline_.sections()) {
            if (inspectName(section) && &section != directory_) inspectClient(section);
        }
        std::stable_sort(findings_.begin(), findings_.end(), [](const Finding& a, const Finding& b) {
            return std::pair(a.place.line, a.place.column) < std::pair(b.place.line, b.place.column);
        });
        return std::move(findings_);
    }

  private:
    void error(Place place, std::string message, std::string remedy) {
        findings_.push_back({true, place, std::move(message), std::move(remedy)});
    }
    void warn(Place place, std::string message, std::string remedy) {
        findings_.push_back({false, place, std::move(message), std::move(remedy)});
    }

    // ---- the syntax ----

    void inspectError(const SyntaxError& found) { error(found.place, found.reason, remedyFor(found)); }

    std::string remedyFor(const SyntaxError& found) const {
        const std::string_view line = outline_.line(found.place.line);
        const std::string_view rest = line.substr(std::min<std::size_t>(found.place.column - 1, line.size()));
        const std::string_view start = line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
        constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
        if (line.substr(0, kByteOrderMark.size()) == kByteOrderMark)
            return "save the file as UTF-8 without a byte order mark; sed -i 's/^\\xEF\\xBB\\xBF//' removes "
                   "it";
        if (endsInReturn(line)) return kEndLines;
        if (start.substr(0, 1) == "#" || start.substr(0, 2) == "//") return "begin a comment with ;";
        if (start.empty()) return "leave no blanks on an empty line, or remove it";
        if (start[0] == '[' && rest.substr(0, 1) == "[") return "put an empty line before the header";
        if (start[0] == '[') return "write the header as [NAME] and nothing else on its line but a comment";
        if (start.find('=') == std::string_view::npos)
            return "write KEY=VALUE, or begin the line with ; to make it a comment";
        if (rest.substr(0, 1) == "=") return "write the key before the =";
        if (start.find('=') > 254) return "shorten the key";
        if (start.find_first_of(";[") < start.find('=')) return "a key holds no ; and no [";
        return "put the line below a section's header, without an empty line or a comment between them";
    }

    // ---- sections and the directory of them ----

    void inspectDirectory() {
        if (directory_ == nullptr) {
            if (!outline_.errors().empty()) return;  // it may stand behind one
            warn({},
                 std::string("no section [") + kDirectoryStanza +
                     "], the list of clients: no client can be added",
                 std::string("begin the file with [") + kDirectoryStanza +
                     "] and a line NAME= for each client");
            return;
        }
        for (const OutlineAttribute& client : directory_->attributes) {
            if (inspectEmptyKey(client.key)) continue;
            inspectRepeated(client, *directory_);
            if (outline_.find(client.key.text) == nullptr) {
                warn(client.key.place, "client " + quoted(client.key.text) + " has no section",
                     "add [" + shown(client.key.text) + "] with a VELARTO_SERVER, or remove the line");
            }
        }
    }

    // Whether it is a section that the gateway can find.
    bool inspectName(const OutlineSection& section) {
        const PlacedText& name = section.name;
        if (name.text.empty()) {
            warn(name.place, "the section's name is empty or longer than 254 characters",
                 "give it a name of 1 to 254 characters");
            return false;
        }
        if (name.isCut) warn(name.place, "the name ends at a NUL byte", "remove the NUL byte");
        const OutlineSection* counts = outline_.find(name.text);
        if (counts != &section) {
            warn(name.place, "section [" + shown(name.text) + "] is there already; this one is never used",
                 "join it with that on " + lineOf(counts->name) + ", or rename one");
            return false;
        }
        const bool isMissed = directory_ != nullptr && directory_->isWhole && counts != directory_ &&
                              directory_->find(name.text) == nullptr;
        if (isMissed)
            warn(name.place, "section [" + shown(name.text) + "] is not listed in [" + kDirectoryStanza + "]",
                 canBeListed(name.text)
                     ? "add the line " + name.text + "= there"
                     : "give it a name without ; = [ \\ control characters and a blank in front");
        return true;
    }

    // ---- a client's section ----

    void inspectClient(const OutlineSection& section) {
        for (const OutlineAttribute& attribute : section.attributes) {
            if (inspectEmptyKey(attribute.key)) continue;
            if (!inspectRepeated(attribute, section)) inspectAttribute(attribute);
        }
        inspectServers(section);
        if (section.isWhole && section.find(key::CLIENTIOTIMEOUT.name) == nullptr)
            warn(section.name.place,
                 "client " + quoted(section.name.text) +
                     " has no CLIENTIOTIMEOUT: a hung server holds each request " + "for 300 seconds",
                 "add CLIENTIOTIMEOUT=30");
    }

    // Whether the key is empty: the gateway reads such a line, but it cannot be written.
    bool inspectEmptyKey(const PlacedText& key) {
        if (!key.text.empty() || key.isCut) return false;
        warn(key.place, "the key is empty: nothing reads it, and while it is there no client can be added",
             "remove the line");
        return true;
    }

    // Whether another of the same key comes first.
    bool inspectRepeated(const OutlineAttribute& attribute, const OutlineSection& section) {
        const OutlineAttribute* counts = section.find(attribute.key.text);
        if (counts == &attribute || counts == nullptr) return false;
        warn(attribute.key.place, quoted(attribute.key.text) + " is there already; this one is never used",
             "remove this one or that on " + lineOf(counts->key));
        return true;
    }

    void inspectAttribute(const OutlineAttribute& attribute) {
        const auto& [name, value] = attribute;
        if (name.isCut) warn(name.place, "the key ends at a NUL byte", "remove the NUL byte");
        const ClientKey* key = findKey(name.text);
        if (key == nullptr) return inspectUnknown(name);
        if (value.isCut)
            warn(value.place, "the value is cut after " + std::to_string(value.text.size()) + " characters",
                 cutRemedy(value));
        if (beginsWithOneOf(value.text, " \t"))
            warn(value.place, "the value begins with a blank, which belongs to it",
                 "leave no blank after the =");
        inspectEnd(value);
        switch (key->kind) {
            case KeyKind::kTruth:
                return inspectTruth(value);
            case KeyKind::kNumber:
                return key == &key::CLIENTIOTIMEOUT ? inspectSeconds(value) : inspectNumber(*key, value);
            case KeyKind::kWord:
                return inspectWord(*key, value);
            case KeyKind::kExtensions:
                return inspectExtensions(value);
            case KeyKind::kReadableFile:
                return inspectFile(value);
            default:
                return;
        }
    }

    void inspectEnd(const PlacedText& value) {
        const std::size_t end = withoutEnd(value.text).size();
        if (end == value.text.size()) return;
        const bool isReturn = endsInReturn(value.text);
        warn(placeIn(value, end),
             std::string("the value ends with a ") + (isReturn ? "carriage return" : "blank") +
                 ", which belongs to it",
             isReturn ? kEndLines : "leave no blank at the line's end");
    }

    static std::string cutRemedy(const PlacedText& value) {
        return value.text.size() < 4095 ? "remove the NUL byte" : "shorten it: 4095 characters are kept";
    }

    void inspectUnknown(const PlacedText& name) {
        const std::string bare = withoutEnd(name.text);
        if (bare != name.text && findKey(bare) != nullptr) {
            warn(placeIn(name, bare.size()),
                 "a blank at the end makes " + quoted(name.text) + " another key, which nothing reads",
                 "leave no blank before the =");
            return;
        }
        const ClientKey* nearest = nearestKey(name.text);
        warn(name.place, "unknown key " + quoted(name.text),
             nearest != nullptr ? std::string("did you mean ") + nearest->name + "?"
                                : "nothing reads it; remove it");
    }

    void inspectTruth(const PlacedText& value) {
        const std::string text = withoutEnd(value.text);
        if (text.empty() || beginsWithOneOf(text, kTrueBeginnings)) return;
        if (isOneOf(text, {"n", "no", "f", "false", "0", "off", "none", "never", "disabled", "disable"}))
            return;
        warn(value.place,
             quoted(text) + " reads as false: only what begins with one of " + kTrueBeginnings + " is true",
             "write yes or no");
    }

    void inspectSeconds(const PlacedText& value) {
        const std::string text = withoutEnd(value.text);
        const unsigned long seconds = CText(text.c_str()).GetTextAsULong();
        if (!isNumber(text)) {
            warn(value.place,
                 quoted(text) + " is not a number of seconds; it reads as " +
                     (seconds != 0 ? std::to_string(seconds) : "the default, 300"),
                 "write digits alone, for example 30");
        } else if (seconds == 0) {
            warn(value.place, "0 seconds read as the default, 300", "write 1 or more, or remove the key");
        } else if (seconds > 300) {
            warn(value.place,
                 "the gateway ends after 300 seconds in any case, so " + text + " has no effect there",
                 "write 300 or less");
        }
    }

    void inspectNumber(const ClientKey& key, const PlacedText& value) {
        Stanza section("");
        section.addValue(key.name, value.text.c_str());
        if (value.text.empty() || NumberValue(section, key) != 0) return;
        warn(value.place, quoted(value.text) + " is no value of " + key.name,
             "write a number from " + std::to_string(key.least) + " to " + std::to_string(key.most) +
                 ", in " + key.unit + ", or remove the key");
    }

    void inspectWord(const ClientKey& key, const PlacedText& value) {
        const std::string text = withoutEnd(value.text);
        const std::vector<std::string> words = split(key.words, '|');
        if (text.empty() || isOneOf(text, words)) return;
        std::string choices;
        for (const std::string& word : words)
            choices += (choices.empty() ? "" : ", ") + word;
        warn(value.place, quoted(text) + " is no value of " + key.name,
             "write one of " + choices + ", or remove the key");
    }

    void inspectExtensions(const PlacedText& value) {
        const std::size_t odd = withoutEnd(value.text).find_first_of(". \t*");
        if (odd == std::string::npos) return;
        warn(placeIn(value, odd),
             "an extension with " + quoted(value.text.substr(odd, 1)) + " in it never matches",
             "write extensions alone, for example zml,zcf");
    }

    void inspectFile(const PlacedText& value) {
        CData content;
        std::uint32_t size = 0;
        errno = 0;
        if (value.text.empty() || ReadFileContent(value.text.c_str(), content, size)) return;
        warn(value.place,
             quoted(value.text) + " cannot be read: " + (errno != 0 ? std::strerror(errno) : "it is no file"),
             "name a file that the web server's user can read");
    }

    // ---- its servers ----

    void inspectServers(const OutlineSection& section) {
        const ServerList list = serversOf(section);
        const OutlineAttribute* servers = section.find(key::VELARTO_SERVER.name);
        const OutlineAttribute* host = section.find(key::VELARTO_HOST.name);
        const OutlineAttribute* port = section.find(key::VELARTO_PORT.name);
        if (list.size() == 0) {
            if (!section.isWhole) return;  // they may stand in what follows the error
            error(section.name.place, "client " + quoted(section.name.text) + " has no servers",
                  "add VELARTO_SERVER=HOST,PORT");
        } else if (servers == nullptr || servers->value.text.empty()) {
            for (std::uint32_t i = 0; i < list.size(); ++i)
                inspectEntry(textOf(list, i), port->value.place,
                             "write ports joined with :, for example 18155:18156");
        } else {
            inspectList(section, list, servers->value);
            for (const OutlineAttribute* older : {host, port}) {
                if (older != nullptr)
                    warn(older->key.place, quoted(older->key.text) + " is not used beside VELARTO_SERVER",
                         "remove it");
            }
        }
    }

    // Whether the gateway can use it.
    bool inspectEntry(const std::string& text, Place place, const char* remedy) {
        const std::string fault = faultOf(ServerEntry(text.c_str()));
        if (!fault.empty())
            error(place, "server " + quoted(text) + " can never be reached: " + fault, remedy);
        return fault.empty();
    }

    void inspectList(const OutlineSection& section, const ServerList& list, const PlacedText& value) {
        std::set<std::string> seen;
        bool hasIds = false;
        std::size_t offset = 0;  // of the next entry in the list
        for (std::uint32_t i = 0; i < list.size(); ++i) {
            const std::string text = textOf(list, i);
            const Place place = placeIn(value, offset);
            offset += text.size() + 1;
            if (!inspectEntry(text, place, "write it as HOST,PORT or ID,HOST,PORT, or PATH or ID,PATH"))
                continue;
            const ServerEntry entry(text.c_str());
            const std::string sid = entry.sid(), endpoint = endpointOf(entry.host(), entry.port());
            if (!seen.insert(endpoint).second)
                warn(place, "server " + quoted(endpoint) + " is there already", "remove one of the two");
            hasIds = hasIds || !sid.empty();
            if (sid.empty() && entry.isBeyondIPv4() && list.size() > 1)
                warn(place,
                     "server " + quoted(endpoint) +
                         " has neither an id nor an IPv4 address: no user is kept at it",
                     "give it an id of 4 letters or digits");
            if (!sid.empty() && sid.size() != 4)
                warn(place,
                     "id " + quoted(sid) + " has not 4 characters: by it no user is kept at this server",
                     "use 4 letters or digits");
        }
        const OutlineAttribute* forced = section.find(key::FORCE_SERVER_ARG_NAME.name);
        if (forced != nullptr && !forced->value.text.empty() && !hasIds)
            warn(forced->key.place, "no server has an id that the argument could name",
                 "write the servers as ID,HOST,PORT");
    }

    const Outline& outline_;
    const OutlineSection* const directory_;
    std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> findingsIn(const Outline& outline) {
    return Inspection(outline).run();
}
