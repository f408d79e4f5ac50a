// Addresses as people write them.
#pragma once

// What the text is, without a look-up: AF_INET for an IPv4 address in any form of inet_addr(3), AF_INET6 for an IPv6
// address (RFC 4291, without a zone), AF_UNIX for a path from the root on. AF_UNSPEC for anything else, such as a name.
int AddressFamily(const char* text);
