#include "common/Reset.h"

#include <sys/socket.h>

void resetConnection(int descriptor) {
    // connect(2): an address of family AF_UNSPEC dissolves the connection; TCP tells the peer by a reset.
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    static_cast<void>(::connect(descriptor, &nobody, sizeof nobody));
}
