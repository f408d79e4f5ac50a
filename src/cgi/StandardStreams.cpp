#include "cgi/StandardStreams.h"

#include <unistd.h>

#include "platform/osfile_impl.h"

std::int64_t StandardInput::read(void* buffer, std::uint32_t size) {
    return ReadOSFile(STDIN_FILENO, buffer, size);
}

bool StandardOutput::write(iovec* pieces, int count) {
    return WriteOSFile(STDOUT_FILENO, pieces, count);
}
