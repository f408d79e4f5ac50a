#include "platform/AddressFamily.h"

#include <arpa/inet.h>
#include <sys/socket.h>

int AddressFamily(const char* text) {
    if (*text == '/') return AF_UNIX;
    if (inet_addr(text) != INADDR_NONE) return AF_INET;
    in6_addr address;
    return inet_pton(AF_INET6, text, &address) == 1 ? AF_INET6 : AF_UNSPEC;
}
