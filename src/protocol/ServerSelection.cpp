#include "protocol/ServerSelection.h"

#include <strings.h>

#include <cstring>
#include <new>

#include "Server/General/AdditiveRandom.h"

namespace {

bool isUsers(const char* text, const ServerWishes& wishes) {
    const ServerEntry entry(text);
    if (!wishes.usersAddress.IsEmpty())
        return std::strstr(text, wishes.usersAddress.GetTextEx()) != nullptr && !entry.isBeyondIPv4();
    return entry.isTakenApart() && strcasecmp(entry.sid(), wishes.usersSid.GetTextEx()) == 0;
}

}  // namespace

ServerSelection::ServerSelection(const ServerList& servers, const ServerWishes& wishes, std::uint32_t seed) {
    const std::uint32_t n = servers.size();
    turns_.reset(new (std::nothrow) Turn[2 * std::size_t{n} + 1]);  // the user's may be all
    if (turns_ == nullptr) return;
    if (!wishes.forcedSid.IsEmpty()) {
        addForced(servers, wishes.forcedSid);
    } else {
        addUsers(servers, wishes);
        addRandom(n, seed);
    }
}

void ServerSelection::addForced(const ServerList& servers, const CText& sid) {
    CText text;
    std::uint32_t i = 0;
    for (const std::uint32_t n = servers.size(); i + 1 < n; ++i) {
        const ServerEntry entry(servers.getEntry(i, text).GetTextEx());
        if (std::strcmp(entry.sid(), sid.GetTextEx()) == 0) break;
    }
    add(i, ServerChoice::kForced);
}

void ServerSelection::addUsers(const ServerList& servers, const ServerWishes& wishes) {
    if (wishes.usersSid.IsEmpty() && wishes.usersAddress.IsEmpty()) return;
    CText text;
    for (std::uint32_t i = 0, n = servers.size(); i < n; ++i) {
        if (isUsers(servers.getEntry(i, text).GetTextEx(), wishes)) add(i, ServerChoice::kUsers);
    }
}

void ServerSelection::addRandom(std::uint32_t n, std::uint32_t seed) {
    const std::unique_ptr<bool[]> isTaken(new (std::nothrow) bool[n]());
    if (isTaken == nullptr) return;
    const std::uint32_t usersLast = count_ != 0 ? turns_[count_ - 1].entry : n;
    AdditiveRandom random(seed);
    for (std::uint32_t turn = 0; turn < n; ++turn) {
        std::uint32_t i = random.next() % n;
        while (isTaken[i])
            i = (i + 1) % n;
        isTaken[i] = true;
        if (i != usersLast) add(i, ServerChoice::kRandom);
    }
}
