#include "protocol/ServerState.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "platform/osfile_impl.h"

namespace {

constexpr std::uint32_t kRecords = 256;
constexpr std::uint64_t kMark = 0x0165746174536556;  // "VeState", 1

// FNV-1a, never 0.
std::uint64_t hashOf(const char* text, std::uint64_t hash = 0xCBF29CE484222325) {
    for (; *text != '\0'; ++text)
        hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3;
    return hash != 0 ? hash : 1;
}

std::uint64_t hashOf(const ServerEntry& server) {
    return hashOf(server.port(), hashOf(",", hashOf(server.host())));
}

std::uint64_t now() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000000 + 1;
}

// The same for all processes from one start of the machine to the next.
std::uint64_t startOfMachine() {
    const Descriptor file(::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char id[64] = {};
    if (file.get() == -1 || ReadOSFile(file.get(), id, sizeof id - 1) <= 0) return 1;
    return hashOf(id);
}

std::uint64_t load(const std::uint64_t& place) {
    return __atomic_load_n(&place, __ATOMIC_ACQUIRE);
}

void store(std::uint64_t& place, std::uint64_t value) {
    __atomic_store_n(&place, value, __ATOMIC_RELEASE);
}

bool exchange(std::uint64_t& place, std::uint64_t expected, std::uint64_t value) {
    return __atomic_compare_exchange_n(&place, &expected, value, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// In a folder where everybody may write, and remove what others wrote, the file may be anybody's.
bool isSafeFolder(const char* path) {
    const char* slash = std::strrchr(path, '/');
    const CText folder =
        slash != nullptr ? CText(path, static_cast<std::uint32_t>(slash + 1 - path)) : CText("./");
    struct stat status {};
    return stat(folder.GetTextEx(), &status) == 0 &&
           ((status.st_mode & S_IWOTH) == 0 || (status.st_mode & S_ISVTX) != 0);
}

}  // namespace

struct alignas(8) ServerState::Record {
    std::uint64_t server;  // 0: free
    std::uint64_t until;
    std::uint64_t since;
    std::uint64_t reason;
};

struct ServerState::File {
    std::uint64_t mark;
    std::uint64_t start;
    std::uint64_t zero[6];
    Record records[kRecords];
};

ServerState::~ServerState() {
    if (file_ != nullptr) munmap(file_, sizeof *file_);
}

bool ServerState::open(const char* path, Access access) {
    const bool shares = access == kShare;
    if (shares && !isSafeFolder(path)) return false;
    const int flags = shares ? O_RDWR | O_CREAT : O_RDONLY;
    const Descriptor opened(::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    struct stat status {};
    if (opened.get() == -1 || fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (shares && (status.st_uid != geteuid() || status.st_nlink != 1)) return false;
    if (shares && status.st_size == 0) {  // whoever else found it new does the same
        if (!ChangeOSFileSize(opened.get(), sizeof(File))) return false;
        status.st_size = sizeof(File);
    }
    if (status.st_size != sizeof(File)) return false;

    void* mapped =
        mmap(nullptr, sizeof(File), shares ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, opened.get(), 0);
    if (mapped == MAP_FAILED) return false;
    file_ = static_cast<File*>(mapped);
    if (shares) exchange(file_->mark, 0, kMark);
    const std::uint64_t start = startOfMachine();
    const std::uint64_t before = load(file_->start);
    if (load(file_->mark) == kMark && (before == start || shares)) {
        if (before != start) {
            for (Record& record : file_->records)
                store(record.until, 0);
            store(file_->start, start);
        }
        return true;
    }
    munmap(file_, sizeof *file_);
    file_ = nullptr;
    return false;
}

// Null where there is no file, no such server, or no room for it.
ServerState::Record* ServerState::find(const ServerEntry& server, bool add) const {
    if (file_ == nullptr) return nullptr;
    const std::uint64_t sought = hashOf(server);
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        Record& record = file_->records[(sought + i) % kRecords];
        if (add) exchange(record.server, 0, sought);
        const std::uint64_t found = load(record.server);
        if (found == sought) return &record;
        if (found == 0) return nullptr;
    }
    return nullptr;
}

bool ServerState::leavesOut(const ServerEntry& server, std::uint32_t milliseconds) {
    Record* record = find(server, false);
    if (record == nullptr) return false;
    const std::uint64_t until = load(record->until);
    if (until == 0) return false;
    const std::uint64_t time = now();
    return time < until || !exchange(record->until, until, time + milliseconds);
}

void ServerState::setOut(const ServerEntry& server, std::uint32_t milliseconds, int reason) {
    Record* record = find(server, true);
    if (record == nullptr) return;
    const std::uint64_t time = now();
    if (load(record->until) == 0) store(record->since, time);
    store(record->reason, static_cast<std::uint32_t>(reason));
    store(record->until, time + milliseconds);
}

void ServerState::setIn(const ServerEntry& server) {
    Record* record = find(server, false);
    if (record != nullptr && load(record->until) != 0) store(record->until, 0);
}

bool ServerState::getAbsence(const ServerEntry& server, Absence& absence) const {
    const Record* record = find(server, false);
    if (record == nullptr || load(record->until) == 0) return false;
    absence.milliseconds = now() - load(record->since);
    absence.reason = static_cast<int>(static_cast<std::uint32_t>(load(record->reason)));
    return true;
}
