// TemporaryFile: a new file beside another, which may take the other's place.
#pragma once

#include <sys/stat.h>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/Common_Classes/UText.h"
#include "platform/osfile_impl.h"

// Lies in the folder of a path as ".NAME.XXXXXX", six letters or digits in place of the X. It is removed at the
// end of its life unless it took the place of the other. Results are false with errno.
class TemporaryFile {
  public:
    explicit TemporaryFile(const CText& path);  // the path stays the caller's and outlives the object
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    int fd() const { return file_.get(); }

    // Makes the file, empty, a copy of the model in all but content: owner, group, mode and extended attributes,
    // to which access control lists belong. False when there can be none that agrees in all of them.
    bool createLike(int model, const struct stat& modelStatus);

    // Renames the file over the path and makes the new name durable.
    bool takePlace();

    // Removes the files of that name that processes left behind which were killed: plain ones of this user, not
    // changed for an hour. Called by who holds the lock of the path.
    void removeAbandoned() const;

  private:
    const MemoryWatch memory_;  // of the texts that follow
    const CText& path_;
    CText folder_;
    CText name_;  // without the six characters until the file was made
    Descriptor file_;
    bool exists_ = false;
};
