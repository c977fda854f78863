// Tests of the decoding of KTNet frames.
#include "ktn_support.h"

#include <qxapi_ktn_frame.h>

#include <gtest/gtest.h>

#include <cerrno>

const std::vector<BadFrame> &badFrames() {
    static const std::vector<BadFrame> frames = {
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
    return frames;
}

namespace {

TEST(Frame, EachCheckFailsByItsName) {
    for (const BadFrame &bad : badFrames()) {
        const Bytes bytes = bad.bytes();
        KTNET_FRAME frame{};
        EXPECT_EQ(ktn_xapi_frame_decode(bytes.data(), bytes.size(), &frame), bad.iDecode) << bad.pszWhat;
        EXPECT_EQ(frame.uiIdent, 0u) << bad.pszWhat << ": nothing is stored";
    }
    KTNET_FRAME frame{};
    ASSERT_EQ(ktn_xapi_frame_decode(kFrameBytes.data(), kFrameBytes.size(), &frame), KTNET_FRAME_GOOD);
    EXPECT_EQ(frame.uiIdent, 200u);
    EXPECT_EQ(frame.uiService, 205u);
    EXPECT_EQ(frame.uiCommand, 0x40020u);
    EXPECT_EQ(frame.uiParam, 0x01020304u);
    EXPECT_EQ(std::string(frame.pPayload, frame.pPayload + frame.uiPayloadLen), "abc");
    EXPECT_EQ(ktn_xapi_frame_decode_header(kFrameBytes.data(), kFrameBytes.size(), &frame), KTNET_FRAME_GOOD);
    EXPECT_EQ(frame.pPayload, nullptr);
    Bytes longer = kFrameBytes;
    longer.push_back(0);
    EXPECT_EQ(ktn_xapi_frame_decode(longer.data(), longer.size(), &frame), KTNET_FRAME_BAD_LENGTH);
}

} // namespace
