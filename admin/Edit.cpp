// velarto-config set, unset, add, remove: changes of one section, through the library's locked write-back.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <set>

#include "Command.h"
#include "Configuration.h"
#include "Findings.h"
#include "client/ConfigClnt.h"

namespace {

struct Change {
    std::string client;
    std::string key;
    std::string value;
    bool force = false;
};

// The section as it stands in a file.
Outline outlineOf(Stanza& section) {
    CText text;
    if (!section.appendStanza(text)) throw std::bad_alloc();
    return Outline(text.GetTextEx());
}

// The first text that the gateway reads without its end; null when there is none.
const PlacedText* cutTextIn(const Outline& outline) {
    for (const OutlineSection& section : outline.sections()) {
        if (section.name.isCut) return &section.name;
        for (const OutlineAttribute& attribute : section.attributes) {
            if (attribute.key.isCut) return &attribute.key;
            if (attribute.value.isCut) return &attribute.value;
        }
    }
    return nullptr;
}

// The whole file is written anew, so what cannot be written stands in the way of every change.
void requireWritable(const Snapshot& file) {
    for (const OutlineSection& section : file.outline().sections()) {
        for (const OutlineAttribute& attribute : section.attributes) {
            if (attribute.key.text.empty())
                throw Failure(
                    faultText(file.path(), attribute.key.place,
                              "the file cannot be written anew with this empty key; remove the line"));
        }
    }
}

[[noreturn]] void refuseLoss(const Snapshot& file, Place place, const std::string& what) {
    throw Failure(
        faultText(file.path(), place, "the file is written anew, without " + what + "; --force writes it"));
}

// What must not be lost or come into the file unawares; --force writes all the same.
void examine(const Snapshot& file, const Outline& before, const Outline& after) {
    const PlacedText* cut = cutTextIn(file.outline());
    if (cut != nullptr) refuseLoss(file, cut->place, "the part of this that the gateway does not read");
    if (file.outline().droppedKey().line != 0)
        refuseLoss(file, file.outline().droppedKey(), "its last line, which the gateway ignores");
    const auto comments = file.outline().linesWithComments();
    if (!comments.empty())
        refuseLoss(
            file, {comments.front(), 1},
            comments.size() == 1 ? "its comment" : "its " + std::to_string(comments.size()) + " comments");
    std::set<std::string> known;
    for (const Finding& finding : findingsIn(before))
        known.insert(finding.message);
    for (const Finding& finding : findingsIn(after)) {
        if (known.count(finding.message) == 0)
            throw Failure(finding.message + "; " + finding.remedy + "; --force writes it all the same");
    }
}

// The syntax cannot carry every name, key and value: whether the section, with that key, would be read as it
// is here.
bool readsBack(Stanza& section, const std::string& key) {
    const Outline outline = outlineOf(section);
    if (!outline.errors().empty() || outline.sections().size() != 1) return false;
    const OutlineSection& read = outline.sections()[0];
    const OutlineAttribute* attribute = read.find(key);
    CText value;
    section.getValue(key.c_str(), value);
    return read.name.text == section.getStanzaName().GetTextEx() && attribute != nullptr &&
           sameName(attribute->key.text, key) && attribute->value.text == value.GetTextEx();
}

void requireValue(Stanza& section, const std::string& key) {
    if (!readsBack(section, key))
        throw Failure(
            "the file cannot hold that value of '" + shown(key) +
            "': a key is not empty, begins with no blank, holds no = ; or [ and at most 254 characters, "
            "a value at most 4095");
}

void requireName(const std::string& client) {
    Stanza section(client.c_str());
    Stanza directory(kDirectoryStanza);
    section.addValue(key::VELARTO_SERVER.name, kDefaultServer);
    directory.addValue(client.c_str(), "");
    if (!readsBack(section, key::VELARTO_SERVER.name) || !readsBack(directory, client))
        throw Failure(
            "no client can be called '" + shown(client) +
            "': a name is not empty, begins with no blank, holds no = ; [ or ] and at most 254 characters");
}

// The library adds and removes no client without it.
void requireDirectory(const Snapshot& file) {
    if (file.outline().find(kDirectoryStanza) == nullptr)
        throw Failure(shown(file.path()) + ": has no section [" + kDirectoryStanza +
                      "], the list of clients");
}

// Of several sections of one name only the first counts: without it the next would.
void requireOnly(const Snapshot& file, const OutlineSection& section) {
    for (const OutlineSection& other : file.outline().sections()) {
        if (&other != &section && sameName(other.name.text, section.name.text))
            throw Failure(faultText(file.path(), other.name.place,
                                    "this section of the same name would count then; remove it first"));
    }
}

[[noreturn]] void failToWrite(const std::string& path, int cause) {
    throw Failure(shown(path) + ": cannot be written" +
                  (cause != 0 ? std::string(": ") + std::strerror(cause) : ""));
}

// Calls what writes the file.
template <typename Write>
int written(const Request& request, const std::string& path, const std::string& client, Write write) {
    errno = 0;
    if (!write()) failToWrite(path, errno);
    if (request.json) {
        print({{"path", path}, {"client", client}, {"written", true}});
    } else {
        std::cout << shown(path) << ": written\n";
    }
    return kFine;
}

// ---- the commands ----

// They know nothing of the other sections, so that what others change meanwhile stays.

// An image of nothing but the list of clients and this section.
void fill(ConfigFile& image, std::unique_ptr<Stanza> section) {
    image.createDirectoryStanza();
    image.addStanza(section.release(), true);
}

// Changes the client's section and writes it back.
template <typename Edit>
int editSection(const Request& request, const Change& change, Edit edit) {
    const Snapshot file = Snapshot::faultless(request);
    auto section = std::make_unique<Stanza>(stanzaOf(file.client(change.client)));
    requireWritable(file);
    const Outline before = outlineOf(*section);
    edit(*section);
    if (!change.force) examine(file, before, outlineOf(*section));
    ConfigFile image(file.path().c_str(), kDirectoryStanza);
    fill(image, std::move(section));
    return written(request, file.path(), change.client,
                   [&] { return image.changeStanzaWithWrite(change.client.c_str()); });
}

int set(const Request& request, const Change& change) {
    return editSection(request, change, [&change](Stanza& section) {
        section.changeValue(change.key.c_str(), change.value.c_str());
        requireValue(section, change.key);
    });
}

int unset(const Request& request, const Change& change) {
    return editSection(request, change, [&change](Stanza& section) {
        if (!section.removeKey(change.key.c_str()))
            throw Failure("client '" + shown(change.client) + "' has no '" + shown(change.key) + "'");
        while (section.removeKey(change.key.c_str())) {  // those that the first one hid
        }
    });
}

int add(const Request& request, const Change& change) {
    const Snapshot file = Snapshot::faultless(request);
    if (file.outline().find(change.client) != nullptr)
        throw Failure("client '" + shown(change.client) + "' is there already");
    requireDirectory(file);
    requireWritable(file);
    auto section = std::make_unique<Stanza>(change.client.c_str());
    section->addValue(change.key.c_str(), change.value.c_str());
    section->addValue(key::CLIENTIOTIMEOUT.name, "30");  // a hung server must not hold all workers
    requireName(change.client);
    requireValue(*section, change.key);
    if (!change.force) examine(file, Outline(""), outlineOf(*section));
    ConfigFile image(file.path().c_str(), kDirectoryStanza);
    fill(image, std::move(section));
    return written(request, file.path(), change.client,
                   [&] { return image.changeStanzaWithWrite(change.client.c_str()); });
}

int remove(const Request& request, const Change& change) {
    const Snapshot file = Snapshot::faultless(request);
    requireOnly(file, file.client(change.client));
    requireDirectory(file);
    requireWritable(file);
    if (!change.force) examine(file, Outline(""), Outline(""));
    ConfigFile image(file.path().c_str(), kDirectoryStanza);
    image.createDirectoryStanza();
    return written(request, file.path(), change.client,
                   [&] { return image.removeStanzaWithWrite(change.client.c_str()); });
}

using Editor = int (*)(const Request&, const Change&);

CLI::App* addEditor(CLI::App& app, Request& request, const char* name, const char* purpose, Editor edit,
                    const std::shared_ptr<Change>& change) {
    CLI::App* command = app.add_subcommand(name, purpose);
    command->add_option("CLIENT", change->client, "the client")->required();
    command->add_flag("--force", change->force, "even when comments are lost, or check would complain");
    command->callback([&request, edit, change] {
        request.command = [&request, edit, change] { return edit(request, *change); };
    });
    return command;
}

}  // namespace

void addEdit(CLI::App& app, Request& request) {
    auto change = std::make_shared<Change>();
    CLI::App* command = addEditor(app, request, "set", "Set a value", set, change);
    command->add_option("KEY", change->key, "the key")->required();
    command->add_option("VALUE", change->value, "its value; may be empty")->required();

    change = std::make_shared<Change>();
    command = addEditor(app, request, "unset", "Remove a value", unset, change);
    command->add_option("KEY", change->key, "the key")->required();

    change = std::make_shared<Change>();
    change->key = key::VELARTO_SERVER.name;
    change->value = kDefaultServer;
    command = addEditor(app, request, "add", "Add a client", add, change);
    command->add_option("--server", change->value, "its servers")->type_name("LIST")->capture_default_str();

    addEditor(app, request, "remove", "Remove a client", remove, std::make_shared<Change>());
}
