#include "ipc/frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

std::string asText(const std::vector<char>& bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST(Frame, AFrameWithoutPayloadIsTheHeaderAlone) {
    EXPECT_EQ(asText(makeFrame(kListServers, "")), "\0\0\0\0\0\0\0\0"s);
}

TEST(Frame, BothHeaderFieldsAreLittleEndian) {
    EXPECT_EQ(asText(makeFrame(0x01020304, "payload")), "\x04\x03\x02\x01\x07\0\0\0payload"s);
}

TEST(Frame, ThePayloadIsTakenByteForByte) {
    EXPECT_EQ(asText(makeFrame(3, "a\0b"s)), "\x03\0\0\0\x03\0\0\0a\0b"s);
}

TEST(Frame, TheLengthTakesFourBytes) {
    const std::string payload(0x10203, 'x');
    EXPECT_EQ(asText(makeFrame(1, payload)), "\x01\0\0\0\x03\x02\x01\0"s + payload);
}

TEST(Frame, AHeaderIsReadAsItIsWritten) {
    const FrameHeader header = readFrameHeader("\x04\x03\x02\x01\xff\xfe\xfd\xfc");
    EXPECT_EQ(header.command, 0x01020304);
    EXPECT_EQ(header.length, 0xfcfdfeff);
}

TEST(Frame, TheCommandCodeIsSigned) {
    EXPECT_EQ(readFrameHeader("\xff\xff\xff\xff\0\0\0\0").command, -1);
    EXPECT_EQ(asText(makeFrame(-2, "")), "\xfe\xff\xff\xff\0\0\0\0"s);
}

}  // namespace
