// Absence: what the gateways of this machine know of servers that they leave out.
#pragma once

#include <string>

#include "protocol/ConnectionSettings.h"
#include "protocol/ServerList.h"
#include "protocol/ServerState.h"

class Absences {
  public:
    explicit Absences(const ConnectionSettings& settings);

    // For people: for how long and why the server is left out; empty when it is not.
    std::string of(const ServerEntry& entry) const;

  private:
    ServerState state_;
};
