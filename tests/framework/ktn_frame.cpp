// The bytes of KTNet frames.
#include "ktn_support.h"

#include <qxapi_ktn_frame.h>

#include <gtest/gtest.h>

#include <cerrno>

const std::vector<BAD_FRAME> &badFrames() {
    static const std::vector<BAD_FRAME> Frames = {
        {"nothing", 0, {}, 0, 0, KTNET_FRAME_SHORT},
        {"a lost byte of the header", 0, {}, 27, -EPROTO, KTNET_FRAME_SHORT},
        {"other magic", 3, {'f'}, 31, -EPROTO, KTNET_FRAME_BAD_MAGIC},
        {"next version", 4, {3, 0}, 31, -EPROTO, KTNET_FRAME_BAD_VERSION},
        {"version in the high byte", 4, {2, 2}, 31, -EPROTO, KTNET_FRAME_BAD_VERSION},
        {"longer header", 6, {32, 0}, 31, -EPROTO, KTNET_FRAME_BAD_HEADER},
        {"a lost byte of the payload", 0, {}, 30, -EPROTO, KTNET_FRAME_BAD_LENGTH},
        {"payload that does not come", 24, {4, 0, 0, 0}, 31, -EPROTO, KTNET_FRAME_BAD_LENGTH},
        {"a byte over a mebibyte", 24, {0xE5, 0xFF, 0x0F, 0x00}, 31, -EMSGSIZE, KTNET_FRAME_BAD_LENGTH},
        {"length of all ones", 24, {0xFF, 0xFF, 0xFF, 0xFF}, 31, -EMSGSIZE, KTNET_FRAME_BAD_LENGTH}};
    return Frames;
}

namespace {

TEST(Frame, EachCheckFailsByItsName) {
    for (const BAD_FRAME &Bad : badFrames()) {
        const BYTES Bytes = Bad.bytes();
        KTNET_FRAME Frame{};
        EXPECT_EQ(ktn_xapi_frame_decode(Bytes.data(), Bytes.size(), &Frame), Bad.iDecode) << Bad.pszWhat;
        EXPECT_EQ(Frame.uiIdent, 0u) << Bad.pszWhat << ": nothing is stored";
    }
    BYTES Longer = FrameBytes;
    Longer.push_back(0);
    KTNET_FRAME Frame{};
    EXPECT_EQ(ktn_xapi_frame_decode(Longer.data(), Longer.size(), &Frame), KTNET_FRAME_BAD_LENGTH);
}

} // namespace
