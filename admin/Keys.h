// Finding a key of a client's section by what somebody wrote.
#pragma once

#include <string>

#include "config/ClientKeys.h"

// Null for a key that nothing reads; letter case does not count.
const ClientKey* findKey(const std::string& name);

// The known key that the name is most likely a slip of; null when none is near.
const ClientKey* nearestKey(const std::string& name);
