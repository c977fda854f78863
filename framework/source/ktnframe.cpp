#include "ktnframe.h"

#include <array>
#include <cstddef>

namespace {

// The header: byte offsets of its fields, all little-endian.
constexpr size_t AT_MAGIC = 0;
constexpr size_t AT_VERSION = 4;
constexpr size_t AT_HEADER_LENGTH = 6;
constexpr size_t AT_PAYLOAD_LENGTH = 24;
struct WORD_FIELD {
    size_t ulAt;
    unsigned int KTNET_FRAME::*pField;
};
constexpr std::array<WORD_FIELD, 5> WordFields{{{8, &KTNET_FRAME::uiIdent},
                                                {12, &KTNET_FRAME::uiService},
                                                {16, &KTNET_FRAME::uiCommand},
                                                {20, &KTNET_FRAME::uiParam},
                                                {AT_PAYLOAD_LENGTH, &KTNET_FRAME::uiPayloadLen}}};

void put(unsigned char *pBytes, size_t ulSize, unsigned int uiValue) {
    for (size_t ulAt = 0; ulAt < ulSize; ulAt++)
        pBytes[ulAt] = static_cast<unsigned char>(uiValue >> (8 * ulAt));
}

unsigned int get(const unsigned char *pBytes, size_t ulSize) {
    unsigned int uiValue = 0;
    for (size_t ulAt = 0; ulAt < ulSize; ulAt++)
        uiValue |= static_cast<unsigned int>(pBytes[ulAt]) << (8 * ulAt);
    return uiValue;
}

} // namespace

void ktnFrameEncodeHeader(unsigned char *pBytes, const KTNET_FRAME &Frame) {
    put(pBytes + AT_MAGIC, 4, KTNET_FRAME_MAGIC);
    put(pBytes + AT_VERSION, 2, KTNET_FRAME_VERSION);
    put(pBytes + AT_HEADER_LENGTH, 2, KTNET_FRAME_HEADER_SIZE);
    for (const WORD_FIELD &Field : WordFields)
        put(pBytes + Field.ulAt, 4, Frame.*Field.pField);
}

int ktn_xapi_frame_decode_header(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame) {
    if (ulLength < KTNET_FRAME_HEADER_SIZE)
        return KTNET_FRAME_SHORT;
    if (get(pBytes + AT_MAGIC, 4) != KTNET_FRAME_MAGIC)
        return KTNET_FRAME_BAD_MAGIC;
    if (get(pBytes + AT_VERSION, 2) != KTNET_FRAME_VERSION)
        return KTNET_FRAME_BAD_VERSION;
    if (get(pBytes + AT_HEADER_LENGTH, 2) != KTNET_FRAME_HEADER_SIZE)
        return KTNET_FRAME_BAD_HEADER;
    for (const WORD_FIELD &Field : WordFields)
        pFrame->*Field.pField = get(pBytes + Field.ulAt, 4);
    pFrame->pPayload = nullptr;
    return KTNET_FRAME_GOOD;
}

int ktn_xapi_frame_decode(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame) {
    KTNET_FRAME Frame;
    const int iResult = ktn_xapi_frame_decode_header(pBytes, ulLength, &Frame);
    if (iResult != KTNET_FRAME_GOOD)
        return iResult;
    if (Frame.uiPayloadLen != ulLength - KTNET_FRAME_HEADER_SIZE)
        return KTNET_FRAME_BAD_LENGTH;
    Frame.pPayload = pBytes + KTNET_FRAME_HEADER_SIZE;
    *pFrame = Frame;
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
