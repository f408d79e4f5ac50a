// The keys of a client's section in clients.ini: their names, what they hold, and what holds without them. Whoever
// reads, checks, shows or documents a key takes it from here.
#pragma once

#include <cstdint>

#include "config/Stanza.h"

enum class KeyKind {
    kText,
    kServers,       // VELARTO_SERVER's list
    kPorts,         // ports joined with ":"
    kNumber,        // a decimal number from least to most, of the unit
    kTruth,         // yes or no
    kExtensions,    // of file names, joined with "," ";" or ":"
    kReadableFile,  // a path
    kWord,          // one of the words
};

struct ClientKey {
    const char* name;
    KeyKind kind;
    const char* byDefault;  // what holds when the section lacks the key; empty when nothing does
    const char* meaning;    // in a few words, for people
    const char* unit = "";  // of a number
    std::uint32_t least = 0;
    std::uint32_t most = 0;
    const char* words = "";  // joined with "|"; letter case does not count
};

namespace key {

inline constexpr ClientKey VELARTO_SERVER{"VELARTO_SERVER", KeyKind::kServers, "", "the application servers"};
inline constexpr ClientKey VELARTO_HOST{"VELARTO_HOST", KeyKind::kText, "",
                                        "older form: the one host of the servers"};
inline constexpr ClientKey VELARTO_PORT{"VELARTO_PORT", KeyKind::kPorts, "", "older form: their ports"};
inline constexpr ClientKey CLIENTIOTIMEOUT{"CLIENTIOTIMEOUT",
                                           KeyKind::kNumber,
                                           "300",
                                           "how long to wait for the server to read or write",
                                           "seconds",
                                           1,
                                           4294967};
inline constexpr ClientKey KEEPIOTIMEOUT{"KEEPIOTIMEOUT", KeyKind::kTruth, "no",
                                         "CLIENTIOTIMEOUT holds after a failed attempt, too"};
inline constexpr ClientKey CONNECTTIMEOUT{"CONNECTTIMEOUT",
                                          KeyKind::kNumber,
                                          "1000",
                                          "how long each server may take to accept",
                                          "milliseconds",
                                          50,
                                          60000};
inline constexpr ClientKey ANSWERTIMEOUT{
    "ANSWERTIMEOUT", KeyKind::kNumber, "", "how long the answer's first byte may take", "seconds", 1, 3600};
inline constexpr ClientKey REQUESTTIMEOUT{
    "REQUESTTIMEOUT", KeyKind::kNumber, "300", "how long the whole request may take", "seconds", 1, 3600};
inline constexpr ClientKey ALLADDRESSES{"ALLADDRESSES", KeyKind::kTruth, "no",
                                        "try each address of a host's name, IPv4 and IPv6"};
inline constexpr ClientKey SERVERCHOICE{
    "SERVERCHOICE", KeyKind::kWord, "", "order of the servers, but for the user's own", "", 0, 0, "random"};
inline constexpr ClientKey SERVERRETRY{
    "SERVERRETRY", KeyKind::kNumber, "", "how long a server that was not reached is left out", "seconds", 1,
    3600};
inline constexpr ClientKey STATEPATH{"STATEPATH", KeyKind::kText, "in /run/velarto",
                                     "file in which gateways tell each other of them"};
inline constexpr ClientKey OWNCOOKIES{"OWNCOOKIES", KeyKind::kTruth, "no",
                                      "take cookies of the gateway's names out of what browsers send"};
inline constexpr ClientKey FORCE_SERVER_ARG_NAME{"FORCE_SERVER_ARG_NAME", KeyKind::kText, "",
                                                 "query argument that selects a server by its id"};
inline constexpr ClientKey PARSEFILEPATHS{"PARSEFILEPATHS", KeyKind::kTruth, "no",
                                          "read \\ as / in the paths of files that the server asks for"};
inline constexpr ClientKey FILEROOT{"FILEROOT", KeyKind::kText, "",
                                    "folders below which the server may ask for files, joined with :"};
inline constexpr ClientKey FILELIMIT{
    "FILELIMIT", KeyKind::kNumber, "", "size of the largest file that the server may have", "bytes",
    1,           4294967295};
inline constexpr ClientKey CLIENTLOG{"CLIENTLOG", KeyKind::kWord,
                                     "off",       "a line for each failure, or request",
                                     "",          0,
                                     0,           "off|stderr|stderr,all|syslog|syslog,all"};
inline constexpr ClientKey HTTPSTATUS{"HTTPSTATUS", KeyKind::kTruth, "no",
                                      "tell the web server the status of answers and of failures"};
inline constexpr ClientKey ERRORPAGE{"ERRORPAGE", KeyKind::kReadableFile, "",
                                     "file that visitors see of a failure"};
inline constexpr ClientKey NEEDLENGTH{"NEEDLENGTH", KeyKind::kTruth, "no",
                                      "refuse a body whose length is not told"};
inline constexpr ClientKey BROKENANSWER{
    "BROKENANSWER", KeyKind::kWord, "", "what becomes of an answer that breaks off", "", 0, 0, "cut"};
inline constexpr ClientKey DOCUMENTPATH{"DOCUMENTPATH", KeyKind::kText, "",
                                        "for host programs: a folder of documents"};
inline constexpr ClientKey REGISTER_EXTNS{"REGISTER_EXTNS", KeyKind::kExtensions, "zaf,zhtml,zml,zcf",
                                          "for host programs: extensions of the documents to serve"};
inline constexpr ClientKey SENDFULLHEADER{"SENDFULLHEADER", KeyKind::kTruth, "no",
                                          "for host programs: ask for the whole header"};
inline constexpr ClientKey ERROR_HTML{"ERROR_HTML", KeyKind::kReadableFile, "",
                                      "for host programs: file of the error page"};
inline constexpr ClientKey REPORTCLIENTERROR{"REPORTCLIENTERROR", KeyKind::kTruth, "no",
                                             "for host programs: the built-in error page all the same"};

}  // namespace key

// All of them, in the order in which people are shown them.
inline constexpr const ClientKey* kClientKeys[] = {
    &key::VELARTO_SERVER,
    &key::VELARTO_HOST,
    &key::VELARTO_PORT,
    &key::CLIENTIOTIMEOUT,
    &key::KEEPIOTIMEOUT,
    &key::CONNECTTIMEOUT,
    &key::ANSWERTIMEOUT,
    &key::REQUESTTIMEOUT,
    &key::ALLADDRESSES,
    &key::SERVERCHOICE,
    &key::SERVERRETRY,
    &key::STATEPATH,
    &key::FORCE_SERVER_ARG_NAME,
    &key::OWNCOOKIES,
    &key::PARSEFILEPATHS,
    &key::FILEROOT,
    &key::FILELIMIT,
    &key::CLIENTLOG,
    &key::HTTPSTATUS,
    &key::ERRORPAGE,
    &key::BROKENANSWER,
    &key::NEEDLENGTH,
    &key::DOCUMENTPATH,
    &key::REGISTER_EXTNS,
    &key::SENDFULLHEADER,
    &key::ERROR_HTML,
    &key::REPORTCLIENTERROR,
};

// A truth value is true when it begins with one of these.
inline constexpr char kTrueBeginnings[] = "YyTt1";

// The look-ups take the entry's parts one by one, and the forms for an entry are inlined: a program that asks for a few
// keys then holds no table of pointers, which a position-independent one would have to relocate at its start.

// Whether the section has the key with a true value.
bool IsTrueValue(Stanza& section, const char* key);
inline bool IsTrueValue(Stanza& section, const ClientKey& key) {
    return IsTrueValue(section, key.name);
}

// The number that the section gives the key: 0 when it gives none, or one that is not from least to most.
std::uint32_t NumberValue(Stanza& section, const char* key, std::uint32_t least, std::uint32_t most);
inline std::uint32_t NumberValue(Stanza& section, const ClientKey& key) {
    return NumberValue(section, key.name, key.least, key.most);
}

// Whether the section gives the key this word.
bool IsWordValue(Stanza& section, const char* key, const char* word);
inline bool IsWordValue(Stanza& section, const ClientKey& key, const char* word) {
    return IsWordValue(section, key.name, word);
}

// Fills out with the keys of words and numbers that have a value which is none of theirs, joined with ",".
CText& ListIgnoredKeys(Stanza& section, CText& out);
