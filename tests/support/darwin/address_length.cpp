#include "tests/support/address_length.h"

#include <cstdint>

void setAddressLength(struct sockaddr_storage& address, socklen_t length) {
    address.ss_len = static_cast<uint8_t>(length);
}
