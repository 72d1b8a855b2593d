#include "platform/socket_address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

namespace {

socklen_t lengthOf(sa_family_t family) {
    struct sockaddr_storage address = {};
    address.ss_family = family;
    return socketAddressLength(reinterpret_cast<const struct sockaddr*>(&address));
}

TEST(SocketAddress, LengthGoesByTheFamily) {
    EXPECT_EQ(lengthOf(AF_INET), sizeof(struct sockaddr_in));
    EXPECT_EQ(lengthOf(AF_INET6), sizeof(struct sockaddr_in6));
    EXPECT_EQ(lengthOf(AF_UNIX), sizeof(struct sockaddr_un));
    EXPECT_EQ(lengthOf(AF_UNSPEC), 0U);
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
