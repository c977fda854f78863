/* qxapi_ktn_frame.h - libqxapi_ktn: the bytes of a KTNet frame. For programs that take frames from
 * elsewhere than a KTNet endpoint, such as a recorded or watched datagram. docs/wire-formats.md describes
 * the layout.
 *
 * Every call is safe from any thread. Nothing is allocated. */
#ifndef QXAPI_KTN_FRAME_H
#define QXAPI_KTN_FRAME_H

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* The bytes 'K' 'T' 'N' 'F' as a little-endian word. */
#define KTNET_FRAME_MAGIC 0x464E544Bu
#define KTNET_FRAME_VERSION 2u
#define KTNET_FRAME_HEADER_SIZE 28u

/* Results of decoding: good, or the check that failed.
 * SHORT: fewer bytes than a header. BAD_MAGIC: does not begin with the magic. BAD_VERSION: another version.
 * BAD_HEADER: another header length. BAD_LENGTH: payload length and bytes present do not agree. */
#define KTNET_FRAME_GOOD 1
#define KTNET_FRAME_SHORT (-1)
#define KTNET_FRAME_BAD_MAGIC (-2)
#define KTNET_FRAME_BAD_VERSION (-3)
#define KTNET_FRAME_BAD_HEADER (-4)
#define KTNET_FRAME_BAD_LENGTH (-5)

/* What a frame says. */
typedef struct KTNET_FRAME {
    unsigned int uiIdent;
    unsigned int uiService;
    unsigned int uiCommand;
    unsigned int uiParam;
    unsigned int uiPayloadLen;
    /* Points into the decoded bytes. Null if only the header was decoded. */
    const unsigned char *pPayload;
} KTNET_FRAME;

/* Decodes the frame header at pBytes. The payload need not be there yet.
 * ulLength: bytes at pBytes, at least KTNET_FRAME_HEADER_SIZE.
 * Returns one of the results above. Fills *pFrame for KTNET_FRAME_GOOD only. */
int ktn_xapi_frame_decode_header(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame);

/* Decodes one whole frame: header and payload, exactly ulLength bytes. Returns and fills as above. */
int ktn_xapi_frame_decode(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame);

/* Returns the text of a result, for messages. */
const char *ktn_xapi_frame_text(int iResult);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
