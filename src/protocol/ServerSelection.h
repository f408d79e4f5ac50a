// ServerSelection: which servers of a list a request is offered to, in which order.
#pragma once

#include <cstdint>
#include <memory>

#include "Server/Common_Classes/UText.h"
#include "protocol/ServerList.h"

// Which way a server was chosen.
enum class ServerChoice { kNone, kOnly, kForced, kUsers, kRandom };

// What a request asks for; an empty text asks for nothing.
struct ServerWishes {
    CText forcedSid;     // this server and no other; letter case counts
    CText usersSid;      // the user's server; letter case does not count
    CText usersAddress;  // the same by an IPv4 "address,port", which its entry contains
};

// The turns of a request, in their order. A forced server has the only one: the first entry of its SID, else the last
// of the list. Without it those of the user's server come first, in the order of the list; then every entry, in an
// order that the seed decides, but for the user's last. Turns are missing when there is no memory.
class ServerSelection {
  public:
    struct Turn {
        std::uint32_t entry;  // its place in the list
        ServerChoice choice;
    };

    ServerSelection(const ServerList& servers, const ServerWishes& wishes, std::uint32_t seed);

    const Turn* begin() const { return turns_.get(); }
    const Turn* end() const { return turns_.get() + count_; }

  private:
    void addForced(const ServerList& servers, const CText& sid);
    void addUsers(const ServerList& servers, const ServerWishes& wishes);
    void addRandom(std::uint32_t n, std::uint32_t seed);
    void add(std::uint32_t entry, ServerChoice choice) { turns_[count_++] = {entry, choice}; }

    std::unique_ptr<Turn[]> turns_;
    std::uint32_t count_ = 0;
};
