/* qxapi_ktn_frame.h - libqxapi_ktn: the bytes of a KTNet frame, for those who read frames from elsewhere (a
 * recorded or watched datagram) than a KTNet endpoint. The layout is described in docs/wire-formats.md.
 *
 * Every call is safe from any thread; nothing is allocated. */
#ifndef QXAPI_KTN_FRAME_H
#define QXAPI_KTN_FRAME_H

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

#define KTNET_FRAME_MAGIC 0x464E544Bu /* the bytes 'K' 'T' 'N' 'F' as a little-endian word */
#define KTNET_FRAME_VERSION 2u
#define KTNET_FRAME_HEADER_SIZE 28u

/* Results of decoding: KTNET_FRAME_GOOD, or which check failed. */
#define KTNET_FRAME_GOOD 1
#define KTNET_FRAME_SHORT (-1)       /* fewer bytes than a header */
#define KTNET_FRAME_BAD_MAGIC (-2)   /* does not begin with the magic */
#define KTNET_FRAME_BAD_VERSION (-3) /* another version */
#define KTNET_FRAME_BAD_HEADER (-4)  /* another header length */
#define KTNET_FRAME_BAD_LENGTH (-5)  /* payload length and bytes present do not agree */

/* What a frame says. */
typedef struct KTNET_FRAME {
    unsigned int uiIdent;
    unsigned int uiService;
    unsigned int uiCommand;
    unsigned int uiParam;
    unsigned int uiPayloadLen;
    const unsigned char *pPayload; /* inside the decoded bytes; null after decoding a header alone */
} KTNET_FRAME;

/* Decodes the frame header at pBytes (at least KTNET_FRAME_HEADER_SIZE of the ulLength bytes); the payload
 * need not be there yet. Returns one of the results above; *pFrame is filled for KTNET_FRAME_GOOD only. */
int ktn_xapi_frame_decode_header(const unsigned char *pBytes, unsigned long ulLength, KTNET_FRAME *pFrame);

/* Decodes one whole frame: header and payload, no byte more or less than ulLength. Returns as above. */
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
