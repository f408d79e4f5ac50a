// ServerState: which servers could not be reached, told to each other by all gateways of this machine.
#pragma once

#include <cstdint>

#include "protocol/ServerList.h"

// A small file of fixed records, mapped into each process and changed by atomic stores alone: whoever is killed, and
// wherever, leaves it valid. Times are of the machine's running time (CLOCK_BOOTTIME), so that a clock that is set
// changes nothing; a file of an earlier start of the machine begins anew.
//
//     0   8   mark and version, "VeState" and 1
//     8   8   the start of the machine that the times belong to
//     16  48  zero
//     64  32  each of 256 records: server, until, since, reason; 64 bits each, in the machine's byte order
//
// A server is a hash of its host and port, until and since are milliseconds, and until 0 means that it is not out. Where
// 256 servers are known already, a further one is never out. Threads and processes: any number.
class ServerState {
  public:
    enum Access { kShare, kRead };

    struct Absence {
        std::uint64_t milliseconds;  // since it was first not reached
        int reason;                  // an errno value; kNoSuchHost
    };
    static constexpr int kNoSuchHost = -1;

    ServerState() = default;
    ServerState(const ServerState&) = delete;
    ServerState& operator=(const ServerState&) = delete;
    ~ServerState();

    // False, and nothing is left out, when the file cannot be had: for sharing it must be, or become, a plain file of
    // this user under no symbolic link at its end, in a folder where not everybody may replace it, and of this version.
    bool open(const char* path, Access access);

    // Whether the server is to be left out. When its time is over one caller gets false, to try it, and all others true
    // for another such time.
    bool leavesOut(const ServerEntry& server, std::uint32_t milliseconds);

    void setOut(const ServerEntry& server, std::uint32_t milliseconds, int reason);
    void setIn(const ServerEntry& server);

    bool getAbsence(const ServerEntry& server, Absence& absence) const;  // false: it is not out

  private:
    struct Record;
    struct File;

    Record* find(const ServerEntry& server, bool add) const;

    File* file_ = nullptr;
};
