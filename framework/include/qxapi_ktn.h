/* qxapi_ktn.h - libqxapi_ktn: KTNet, framed packets and datagrams over local stream sockets and UDP.
 *
 * An endpoint is used by the thread that made it; different endpoints may be used at the same time. All
 * results are signed: positive success, 0 nothing (a time-out), negative failure. A failure's reason goes to
 * standard error, a lasting one not more often than every ten seconds, and the errno value into uiError. */
#ifndef QXAPI_KTN_H
#define QXAPI_KTN_H

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

#define KTNET_KIND_LOCAL 0x80100u /* local stream socket on a file-system path */
#define KTNET_KIND_UDP 0x10400u   /* UDP socket, multicast or unicast */

#define KTNET_ADDRESS_SIZE 128u
#define KTNET_LOCAL_FRAME_MAX (1024u * 1024u) /* bytes of one frame on a local socket, header included */
#define KTNET_UDP_FRAME_MAX 65507u            /* bytes of one UDP datagram, frame header included */

/* Endpoint descriptor: made by ktn_xapi_ktnet_init_with_version or _accept, released by _delete. Fields named
 * iLibrary... and uiLibrary... are the library's own. */
typedef struct KTNET_ENDPOINT {
    unsigned int uiLibraryMagic;
    int iLibraryMode;
    int iLibraryVersion;
    unsigned int uiKind; /* KTNET_KIND_LOCAL or KTNET_KIND_UDP */
    int iSocket;         /* -1 while there is none */
    char
        szPeer[KTNET_ADDRESS_SIZE]; /* socket path to connect to; group or address to send to or to receive */
    char szLocal[KTNET_ADDRESS_SIZE]; /* socket path to listen on; address of the receiving interface */
    unsigned int uiPort;              /* UDP port */
    unsigned int uiListen;            /* 1 the receiving side, 0 the sending side */
    unsigned int uiAux;               /* not used */
    unsigned int uiTimeoutMs;         /* bounds each receive and each send of a frame as a whole */
    unsigned int uiLibraryFlags;
    unsigned int uiError; /* errno of the last failure; the caller clears it */
    unsigned int uiLibraryReserved;
} KTNET_ENDPOINT;

/* A frame's header words and payload, 72 bytes. */
typedef struct KTNET_PACKET {
    unsigned int uiIdent;
    unsigned int uiService;
    unsigned int uiCommand;
    unsigned int uiParam;
    unsigned long ulPayloadLen; /* bytes at pPayload */
    unsigned long ulReserved;
    unsigned long ulUnused;
    unsigned char *pPayload; /* a sender's own; a receiver's is allocated by the library (ktn_xapi_free) */
    unsigned long ulPayloadSize;
    unsigned int uiStatus; /* errno of the last failure; the caller clears it */
    unsigned int uiUnused[3];
} KTNET_PACKET;

/* Bytes of one unframed datagram. */
typedef struct KTNET_BUFFER {
    unsigned char *pBuffer;
    unsigned long ulBufferLen;
} KTNET_BUFFER;

/* Makes a descriptor with defaults (no socket, time-out 1000 ms) in *ppDesc, which is overwritten.
 * iMode: 0 or 1, kept for diagnosis; iVersion: 2. Returns 1; -1 (and *ppDesc null) for another version, no
 * slot or no memory. */
int ktn_xapi_ktnet_init_with_version(KTNET_ENDPOINT **ppDesc, int iMode, int iVersion);

/* Opens the socket that the descriptor describes and stores it in iSocket:
 * local, uiListen 1: a listening socket at szLocal, file mode 0600. A stale socket file of this user is
 *   replaced; anything else at the path (no socket, another user's, served by a live listener) is an error.
 * local, uiListen 0: a client socket for szPeer.
 * UDP, uiListen 0: sends to szPeer:uiPort; for a group through the interface that KTNET_MULTICAST_IF names
 *   (name or address), else the routing table's; receivers on this machine get a copy.
 * UDP, uiListen 1: receives what is sent to szPeer:uiPort: a group is joined on the interface of szLocal, an
 *   address of this machine is received as plain unicast.
 * Returns 1, or a negative errno; the descriptor then has no socket. */
int ktn_xapi_ktnet_create(KTNET_ENDPOINT *pDesc);

/* Waits until iSocket is readable (a listener: a connection is pending), at most uiTimeoutMs.
 * Returns 1 readable, 0 time-out (also when a signal cut the wait short), a negative errno. */
int ktn_xapi_rx_poll_socket(int iSocket, unsigned int uiTimeoutMs);

/* Accepts one pending connection into a new descriptor in *ppConn with the listener's time-out. Returns 1; 0
 * the connection had gone; a negative errno. A peer of another user (root excepted) is refused: -EACCES. On
 * anything but 1 *ppConn is null. */
int ktn_xapi_ktnet_accept(KTNET_ENDPOINT *pDesc, KTNET_ENDPOINT **ppConn);

/* Receives one whole frame within uiTimeoutMs: header words, ulPayloadLen, and the payload in a buffer of the
 * library's (null when empty). Magic, version and length are checked before anything is allocated.
 * Returns 1; 0 the peer closed without a byte; a negative errno (-EPROTO no frame, -EMSGSIZE too long,
 * -ETIMEDOUT). pPayload is null unless 1 is returned. */
int ktn_xapi_ktnet_rx_data(KTNET_ENDPOINT *pConn, KTNET_PACKET *pPacket);

/* Connects a client descriptor to szPeer. Returns 1, or a negative errno. */
int ktn_xapi_ktnet_connect(KTNET_ENDPOINT *pDesc);

/* Sends header words and ulPayloadLen bytes at pPayload as one frame, on UDP as one datagram.
 * Returns 1, or a negative errno (-EMSGSIZE for a frame over the maximum of its kind). */
int ktn_xapi_ktnet_tx_data(KTNET_ENDPOINT *pDesc, KTNET_PACKET *pPacket);

/* Sends the buffer as one unframed datagram. iFlags: 0. Returns the bytes sent (1 for an empty buffer), or a
 * negative errno. Allocates nothing. */
int ktn_xapi_ktnet_tx_a_packet(KTNET_ENDPOINT *pDesc, int iFlags, KTNET_BUFFER *pBuffer);

/* Closes the descriptor's socket; a listener's socket file is removed. Returns 1, 0 when there was none. */
int ktn_xapi_ktnet_close(KTNET_ENDPOINT *pDesc);

/* Closes what is still open, releases the descriptor and empties *ppDesc. Returns 1, 0 when there was none.
 */
int ktn_xapi_ktnet_delete(KTNET_ENDPOINT **ppDesc);

/* Sets the multicast hop limit of a sending UDP socket. iFamily: 0 (IPv4); iHops: 0 to 255; iOn: 1 also keeps
 * the copy for receivers on this machine, 0 drops it. Returns 1, or a negative errno. */
int ktn_xapi_hops_socket(int iFamily, int iSocket, int iHops, int iOn);

/* Prints the header for diagnosis on standard output. */
void ktn_xapi_dump_packet_info(const KTNET_PACKET *pPacket);

/* Releases a payload of ktn_xapi_ktnet_rx_data. Null is ignored. */
void ktn_xapi_free(void *pPayload);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
