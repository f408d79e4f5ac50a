// The keys of a client's section: what they hold, and what holds without them.
#pragma once

#include <string>
#include <vector>

enum class ValueKind { kText, kServers, kPorts, kSeconds, kTruth, kExtensions, kReadableFile };

struct Key {
    const char* name;
    ValueKind kind;
    const char* withoutIt;  // what holds when the section lacks it; empty when nothing does
    const char* meaning;
};

const std::vector<Key>& knownKeys();

// Null for a key that nothing reads; letter case does not count.
const Key* findKey(const std::string& name);

// The known key that the name is most likely a slip of; null when none is near.
const Key* nearestKey(const std::string& name);
