#include "tests/support/address_length.h"

void setAddressLength(struct sockaddr_storage& /*address*/, socklen_t /*length*/) {}
