#include "config/TemporaryFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/ErrnoKeeper.h"

namespace {

constexpr char kRandomPart[] = "XXXXXX";
constexpr std::size_t kRandomLength = sizeof kRandomPart - 1;

// The folder part of a path, with the slash that ends it; empty when the path has none.
CText folderOf(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? CText(path, static_cast<std::uint32_t>(slash + 1 - path)) : CText();
}

const char* nameToOpen(const CText& folder) {
    return folder.IsEmpty() ? "." : folder.GetTextEx();
}

// Not every folder may be opened, and by then the new file is in its place: no failure.
void syncFolder(const CText& folder) {
    const Descriptor opened(::open(nameToOpen(folder), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.get() != -1) ::fsync(opened.get());
}

// ---- extended attributes ----

constexpr std::size_t kMostAttributeBytes = 4096;  // of all names, or of one value

// The names of a file's attributes, each with a NUL after it. A file system without attributes has none. False
// when they cannot be had.
bool listAttributes(int fd, char (&names)[kMostAttributeBytes], std::size_t& size) {
    const ssize_t n = ::flistxattr(fd, names, sizeof names);
    size = n > 0 ? static_cast<std::size_t>(n) : 0;
    return n >= 0 || errno == ENOTSUP;
}

bool isSameAttribute(int a, int b, const char* name) {
    char valueOfA[kMostAttributeBytes];
    char valueOfB[kMostAttributeBytes];
    const ssize_t size = ::fgetxattr(a, name, valueOfA, sizeof valueOfA);
    return size >= 0 && ::fgetxattr(b, name, valueOfB, sizeof valueOfB) == size &&
           std::memcmp(valueOfA, valueOfB, static_cast<std::size_t>(size)) == 0;
}

// A new file may lack an attribute of the other, and may have inherited one from its folder that the other lacks.
bool haveSameAttributes(int a, int b) {
    char namesOfA[kMostAttributeBytes];
    char namesOfB[kMostAttributeBytes];
    std::size_t sizeOfA = 0;
    std::size_t sizeOfB = 0;
    if (!listAttributes(a, namesOfA, sizeOfA) || !listAttributes(b, namesOfB, sizeOfB)) return false;
    if (sizeOfA != sizeOfB || std::memcmp(namesOfA, namesOfB, sizeOfA) != 0) return false;
    for (const char* name = namesOfA; name != namesOfA + sizeOfA; name += std::strlen(name) + 1) {
        if (!isSameAttribute(a, b, name)) return false;
    }
    return true;
}

// ---- what killed processes left ----

bool isRandomPart(const char* text) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    return std::strlen(text) == kRandomLength && std::strspn(text, kAlphabet) == kRandomLength;
}

bool isAbandoned(int folder, const char* name) {
    constexpr std::time_t kOld = 3600;  // seconds
    struct stat status = {};
    return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == ::geteuid() && status.st_mtime < std::time(nullptr) - kOld;
}

struct FolderCloser {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

}  // namespace

TemporaryFile::TemporaryFile(const CText& path) : path_(path), folder_(folderOf(path.GetTextEx())) {
    name_ = folder_;
    name_ += ".";
    name_ += path_.GetTextEx() + folder_.Length();
    name_ += ".";
}

TemporaryFile::~TemporaryFile() {
    const ErrnoKeeper keeper;
    if (exists_) ::unlink(name_.GetTextEx());
}

bool TemporaryFile::createLike(int model, const struct stat& modelStatus) {
    name_ += kRandomPart;
    if (memory_.ranOut()) return false;
    file_.reset(::mkostemp(reinterpret_cast<char*>(name_.GetBuffer()), O_CLOEXEC));
    exists_ = fd() != -1;
    const mode_t mode = modelStatus.st_mode & 07777;
    struct stat status = {};
    // The mode comes second: a new owner clears the set-id bits.
    return exists_ && ::fchown(fd(), modelStatus.st_uid, modelStatus.st_gid) == 0 &&
           ::fchmod(fd(), mode) == 0 && ::fstat(fd(), &status) == 0 && (status.st_mode & 07777) == mode &&
           haveSameAttributes(model, fd());
}

bool TemporaryFile::takePlace() {
    if (std::rename(name_.GetTextEx(), path_.GetTextEx()) != 0) return false;
    exists_ = false;
    syncFolder(folder_);
    return true;
}

void TemporaryFile::removeAbandoned() const {
    constexpr int kMostEntries = 10000;  // a folder with more is not walked to its end
    if (memory_.ranOut()) return;        // the name lacks something, and would fit other files
    const ErrnoKeeper keeper;
    const char* beginning = name_.GetTextEx() + folder_.Length();
    const std::size_t length = std::strlen(beginning);
    const std::unique_ptr<DIR, FolderCloser> folder(::opendir(nameToOpen(folder_)));
    if (folder == nullptr) return;
    for (int i = 0; i < kMostEntries; ++i) {
        const dirent* entry = ::readdir(folder.get());
        if (entry == nullptr) return;
        const bool isOfThisKind =
            std::strncmp(entry->d_name, beginning, length) == 0 && isRandomPart(entry->d_name + length);
        if (isOfThisKind && isAbandoned(::dirfd(folder.get()), entry->d_name))
            ::unlinkat(::dirfd(folder.get()), entry->d_name, 0);
    }
}
