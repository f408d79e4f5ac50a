// Rules: what docs/protocol.md asks of a server, and how each is tried.
#pragma once

#include <string>
#include <vector>

#include "Trial.h"

struct Rule {
    const char* id;
    const char* section;  // of docs/protocol.md
    const char* title;    // what holds
    const char* remedy;   // what the server's author has to change where it does not
    // Throws Broken or Skipped when it does not hold, or cannot be seen. Null: every conversation is judged
    // by it, and the usual request's answer tells.
    void (*tryOut)(Trial& trial) = nullptr;

    std::string link() const;  // "docs/protocol.md#section"
};

// All of them, in the order in which they are tried.
std::vector<Rule> allRules();

// Those of each kind.
std::vector<Rule> answerRules();
std::vector<Rule> requestRules();
std::vector<Rule> cookieRules();
std::vector<Rule> fileRules();
std::vector<Rule> connectionRules();

enum class Verdict { kHolds, kBroken, kSkipped };

struct Finding {
    Verdict verdict;
    std::string reason;  // empty where the rule holds
};

Finding judge(Trial& trial, const Rule& rule);
