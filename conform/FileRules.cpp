// The rules about files that the server asks for.
#include "Rules.h"
#include "common/Text.h"

namespace {

constexpr std::size_t kMegabyte = std::size_t{1} << 20;

Manner giving(std::string file) {
    Manner manner;
    manner.file = std::move(file);
    return manner;
}

void filePath(Trial& trial) {
    for (const Message& message : trial.wholeDocument("a file", giving("Hi\n")).messages) {
        if (message.type != QUIL_FILE_REQUEST) continue;
        if (message.text.empty()) throw Broken("the path of a file request is empty");
        if (message.text.find('\0') != std::string::npos)
            throw Broken("the path \"" + printable(message.text) + "\" has a NUL");
    }
}

void fileGiven(Trial& trial) {
    trial.wholeDocument("a file of 3 bytes", giving("Hi\n"));
    trial.wholeDocument("a file that holds whole messages", giving(messagesInside()));
}

void fileRefused(Trial& trial) {
    trial.wholeDocument("a file reply with result false, 20 bytes without a block", {});
}

void tryFiles(Trial& trial, const std::vector<std::size_t>& sizes) {
    Trial::trySizes("a file", sizes, [&](std::size_t size) {
        Answer answer = trial.converse(trial.document(), giving(bytesOf(size)));
        if (!answer.fault && !answer.has(QUIL_FILE_REQUEST)) fileGiven(trial);  // tells it
        return answer;
    });
}

void fileSizes(Trial& trial) {
    tryFiles(trial, {1, 4095, 4096, 4097, 32768, 65535, 65536, 65537});
}

void largeFiles(Trial& trial) {
    tryFiles(trial, {kMegabyte, 4 * kMegabyte, 16 * kMegabyte});
}

void splitFile(Trial& trial) {
    Manner manner = giving("Hi\n");
    manner.sendsAtOnce = 1;
    trial.wholeDocument("a file reply that comes byte by byte", manner);
}

}  // namespace

std::vector<Rule> fileRules() {
    return {
        {"file-path", "Files", "a file request names a path", "send a path without NULs, as a text",
         filePath},
        {"file-given", "Files", "a file that was asked for is read",
         "read a result, and when it is true a block; END! and QUIL may occur in it", fileGiven},
        {"file-refused", "Files", "a false result has no block after it",
         "read the block only when the result is true, and answer with a page of your own", fileRefused},
        {"file-sizes", "Files", "files of 1 to 65537 bytes are read", "read on until the whole block came",
         fileSizes},
        {"large-files", "Limits", "files of 1 to 16 MB are read, or the connection is closed",
         "read the whole block; close where it is longer than your limit", largeFiles},
        {"split-file", "Checklist", "a file reply that comes byte by byte is read",
         "read on until each field is whole", splitFile},
    };
}
