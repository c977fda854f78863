#include "ktnframe.h"

#include <array>
#include <cstddef>

namespace {

// Byte offsets of the header's fields. All are little-endian.
constexpr std::size_t kAtMagic = 0;
constexpr std::size_t kAtVersion = 4;
constexpr std::size_t kAtHeaderLength = 6;
constexpr std::size_t kAtPayloadLength = 24;
struct WordField {
    std::size_t ulAt;
    unsigned int KTNET_FRAME::*pField;
};
constexpr std::array<WordField, 5> kWordFields{{{8, &KTNET_FRAME::uiIdent},
                                                {12, &KTNET_FRAME::uiService},
                                                {16, &KTNET_FRAME::uiCommand},
                                                {20, &KTNET_FRAME::uiParam},
                                                {kAtPayloadLength, &KTNET_FRAME::uiPayloadLen}}};

void put(unsigned char *pBytes, std::size_t ulSize, unsigned int uiValue) {
    for (std::size_t ulAt = 0; ulAt < ulSize; ulAt++) {
        pBytes[ulAt] = static_cast<unsigned char>(uiValue >> (8 * ulAt));
    }
}

unsigned int get(const unsigned char *pBytes, std::size_t ulSize) {
    unsigned int uiValue = 0;
    for (std::size_t ulAt = 0; ulAt < ulSize; ulAt++) {
        uiValue |= static_cast<unsigned int>(pBytes[ulAt]) << (8 * ulAt);
    }
    return uiValue;
}

} // namespace

void ktnFrameEncodeHeader(unsigned char *pBytes, const KTNET_FRAME &frame) {
    put(pBytes + kAtMagic, 4, KTNET_FRAME_MAGIC);
    put(pBytes + kAtVersion, 2, KTNET_FRAME_VERSION);
    put(pBytes + kAtHeaderLength, 2, KTNET_FRAME_HEADER_SIZE);
    for (const WordField &field : kWordFields) {
        put(pBytes + field.ulAt, 4, frame.*field.pField);
    }
}

int ktn_xapi_frame_decode_header(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame) {
    if (ulLength < KTNET_FRAME_HEADER_SIZE) {
        return KTNET_FRAME_SHORT;
    }
    if (get(pBytes + kAtMagic, 4) != KTNET_FRAME_MAGIC) {
        return KTNET_FRAME_BAD_MAGIC;
    }
    if (get(pBytes + kAtVersion, 2) != KTNET_FRAME_VERSION) {
        return KTNET_FRAME_BAD_VERSION;
    }
    if (get(pBytes + kAtHeaderLength, 2) != KTNET_FRAME_HEADER_SIZE) {
        return KTNET_FRAME_BAD_HEADER;
    }
    for (const WordField &field : kWordFields) {
        pFrame->*field.pField = get(pBytes + field.ulAt, 4);
    }
    pFrame->pPayload = nullptr;
    return KTNET_FRAME_GOOD;
}

int ktn_xapi_frame_decode(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame) {
    KTNET_FRAME frame;
    const int iResult = ktn_xapi_frame_decode_header(pBytes, ulLength, &frame);
    if (iResult != KTNET_FRAME_GOOD) {
        return iResult;
    }
    if (frame.uiPayloadLen != ulLength - KTNET_FRAME_HEADER_SIZE) {
        return KTNET_FRAME_BAD_LENGTH;
    }
    frame.pPayload = pBytes + KTNET_FRAME_HEADER_SIZE;
    *pFrame = frame;
    return KTNET_FRAME_GOOD;
}

const char *ktn_xapi_frame_text(int iResult) {
    switch (iResult) {
    case KTNET_FRAME_GOOD:
        return "good";
    case KTNET_FRAME_SHORT:
        return "shorter than a frame header";
    case KTNET_FRAME_BAD_MAGIC:
        return "does not begin with KTNF";
    case KTNET_FRAME_BAD_VERSION:
        return "another frame version";
    case KTNET_FRAME_BAD_HEADER:
        return "another header length";
    case KTNET_FRAME_BAD_LENGTH:
        return "payload length and bytes present do not agree";
    default:
        return "no frame result";
    }
}
