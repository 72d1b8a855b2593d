#include "platform/socket_address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <utility>

#include "tests/support/address_length.h"

namespace {

// As the kernel and getaddrinfo(3) fill it in.
socklen_t lengthOf(sa_family_t family, socklen_t length) {
    struct sockaddr_storage address = {};
    address.ss_family = family;
    setAddressLength(address, length);
    return socketAddressLength(reinterpret_cast<const struct sockaddr*>(&address));
}

TEST(SocketAddress, LengthGoesByTheFamily) {
    for (const auto& [family, length] :
         {std::pair<sa_family_t, size_t>{AF_INET, sizeof(struct sockaddr_in)},
          {AF_INET6, sizeof(struct sockaddr_in6)},
          {AF_UNIX, sizeof(struct sockaddr_un)},
          {AF_UNSPEC, 0}})
        EXPECT_EQ(lengthOf(family, static_cast<socklen_t>(length)), length);
}

TEST(SocketAddress, UnixPathOf103BytesFitsAndOneOf104DoesNot) {
    struct sockaddr_un address = {};
    const std::string longest(103, 'p');
    ASSERT_TRUE(makeUnixAddress(longest.c_str(), address));
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(address.sun_path, longest);
    EXPECT_FALSE(makeUnixAddress((longest + "p").c_str(), address));
    EXPECT_EQ(address.sun_path, longest);
}

TEST(SocketAddress, EmptyUnixPathIsRefused) {
    struct sockaddr_un address = {};
    EXPECT_FALSE(makeUnixAddress("", address));
}

}  // namespace
