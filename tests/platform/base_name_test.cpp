#include "platform/base_name.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string nameOf(const std::string& path) {
    char name[kBaseNameSize] = "untouched";
    baseName(path.c_str(), name);
    return name;
}

TEST(BaseName, IsTheLastComponent) {
    EXPECT_EQ(nameOf("/usr/sbin/hxusbvctl"), "hxusbvctl");
    EXPECT_EQ(nameOf("./hxusbvctl"), "hxusbvctl");
    EXPECT_EQ(nameOf("hxusbvctl"), "hxusbvctl");
}

TEST(BaseName, IgnoresTrailingSlashes) {
    EXPECT_EQ(nameOf("/usr/sbin//"), "sbin");
    EXPECT_EQ(nameOf("sbin/"), "sbin");
}

TEST(BaseName, OfTheRootIsASlashAndOfNothingADot) {
    EXPECT_EQ(nameOf("/"), "/");
    EXPECT_EQ(nameOf("///"), "/");
    EXPECT_EQ(nameOf(""), ".");
}

TEST(BaseName, OfAPathOfAnyLengthIsItsLastComponent) {
    EXPECT_EQ(nameOf(std::string(4 * kBaseNameSize, 'a') + "/hxusbvctl"), "hxusbvctl");
    EXPECT_EQ(nameOf("hxusbvctl" + std::string(4 * kBaseNameSize, '/')), "hxusbvctl");
}

TEST(BaseName, BeyondTheBufferLeavesItUntouched) {
    EXPECT_EQ(nameOf("/" + std::string(kBaseNameSize - 1, 'a')).size(), kBaseNameSize - 1);
    EXPECT_EQ(nameOf("/" + std::string(kBaseNameSize, 'a')), "untouched");
}

}  // namespace
