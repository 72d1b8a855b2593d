// The length that a socket address has inside. linux: none. darwin: its first byte.
#pragma once

#include <sys/socket.h>

void setAddressLength(struct sockaddr_storage& address, socklen_t length);
