// LockedFile: a configuration file on disk, held under its lock, read whole and replaced whole.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "Server/Common_Classes/UData.h"
#include "Server/Common_Classes/UText.h"
#include "platform/mutexobj.h"
#include "platform/osfile_impl.h"

// The step of a file operation that failed; errno tells why.
enum class FileFault { kNone, kOpen, kLock, kStatus, kNotRegular, kRead, kSize, kWrite };

const char* fileFaultText(FileFault fault);  // "could not open file" and the like, to stand before a path

// Between processes the file is guarded by an fcntl() lock on the whole of it: shared for reading, exclusive
// for changing; both wait. Such a lock belongs to the process and is lost when any descriptor of the file is
// closed, so within the process one LockedFile lives at a time: a process-wide mutex is held from the
// construction to the destruction. Lock order: a ConfigFile's lock, that mutex, the fcntl() lock, a stanza's
// lock.
//
// A writer may rename a new file over the old one while others wait for the lock of the old one. Whoever gets
// a lock therefore checks that it is the lock of the file which the path names now, and else opens again.
class LockedFile {
  public:
    // kCreate: as kChange, and creates a missing file. A file that was created is removed again unless replace()
    // succeeds; one that could not be locked stays.
    enum Access { kRead, kChange, kCreate };

    explicit LockedFile(const CText& path);
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;
    ~LockedFile();

    // Called once. Nothing is emptied by it. Waits for the lock, and for nothing else: what is no regular file,
    // such as a pipe, is refused.
    FileFault open(Access access);

    const struct stat& status() const { return status_; }  // taken when the lock was granted

    // The first maxSize bytes of the file. Their number is not that of status() when a program that does not
    // heed the lock has changed the size since: fewer, or more by one.
    FileFault read(CData& out, std::uint32_t maxSize) const;

    // Makes the bytes the file's whole content; on any failure the file keeps its old content. REQUIRES
    // kChange or kCreate.
    //
    // A plain file of one link is replaced by rename: the content is written to a file beside it of the same
    // owner, group, mode and extended attributes (access control lists among them), and synced; a crash leaves
    // the old or the new file. Where that cannot be had (a symbolic or further hard link, a folder that takes
    // no files, an owner or an attribute that cannot be given, a mount point) the file is written in place.
    // Space for growth is reserved first, so that a full disk shows before anything is overwritten; then the
    // whole content is written, with line feeds up to the old size behind it, then the size is cut. What was
    // overwritten is put back when a step fails. A process killed between two steps leaves the old content or
    // the new, until the cut with empty lines at its end. Killed within the write it leaves a beginning of the
    // new before the rest of the old; a crash of the system may leave any mixture.
    //
    // Files that killed processes left beside it are removed when they are an hour old.
    FileFault replace(const char* bytes, std::uint32_t size);

  private:
    FileFault openAndLock(int flags, bool writeLock);
    bool isNamedByPath() const;
    bool isPlain() const;
    FileFault rewriteInPlace(const char* bytes, std::uint32_t size);

    const CText& path_;
    MutexLock processLock_;
    Descriptor file_;
    struct stat status_ = {};
    bool created_ = false;
};
