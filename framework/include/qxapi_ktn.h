/* qxapi_ktn.h - libqxapi_ktn: KTNet, framed packets and datagrams over local stream sockets and UDP.
 *
 * An endpoint belongs to the thread that made it. Different endpoints may be used at the same time.
 * All results are signed: positive success, 0 nothing (a time-out), negative failure. A failure prints its
 * reason on standard error and stores the errno value in uiError. The same line is printed again only after
 * ten seconds. */
#ifndef QXAPI_KTN_H
#define QXAPI_KTN_H

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* ---- Records */

/* Kinds of endpoint: a local stream socket on a file-system path; a UDP socket, multicast or unicast. */
#define KTNET_KIND_LOCAL 0x80100u
#define KTNET_KIND_UDP 0x10400u

#define KTNET_ADDRESS_SIZE 128u

/* Bytes of the largest frame on a local socket and in a UDP datagram, frame header included. */
#define KTNET_LOCAL_FRAME_MAX (1024u * 1024u)
#define KTNET_UDP_FRAME_MAX 65507u

/* Endpoint descriptor. ktn_xapi_ktnet_init_with_version and _accept make it, _delete releases it. Fields
 * named iLibrary... and uiLibrary... belong to the library. */
typedef struct KTNET_ENDPOINT {
    unsigned int uiLibraryMagic;
    int iLibraryMode;
    int iLibraryVersion;
    /* KTNET_KIND_LOCAL or KTNET_KIND_UDP. */
    unsigned int uiKind;
    /* -1 while there is none. */
    int iSocket;
    /* Local: the socket path to connect to. UDP: the group or address to send to or to receive. */
    char szPeer[KTNET_ADDRESS_SIZE];
    /* Local: the socket path to listen on. UDP: the receiving interface, by name or address. */
    char szLocal[KTNET_ADDRESS_SIZE];
    /* UDP port. */
    unsigned int uiPort;
    /* 1 the receiving side, 0 the sending side. */
    unsigned int uiListen;
    /* Not used. */
    unsigned int uiAux;
    /* Bounds each receive of a frame, each send on a local socket, and each read of the caller's own on
     * iSocket, as a whole. Set before the socket is opened. */
    unsigned int uiTimeoutMs;
    unsigned int uiLibraryFlags;
    /* errno of the last failure. The caller clears it. */
    unsigned int uiError;
    unsigned int uiLibraryReserved;
} KTNET_ENDPOINT;

/* A frame's header words and payload, 72 bytes. */
typedef struct KTNET_PACKET {
    unsigned int uiIdent;
    unsigned int uiService;
    unsigned int uiCommand;
    unsigned int uiParam;
    /* Bytes at pPayload. */
    unsigned long ulPayloadLen;
    unsigned long ulReserved;
    unsigned long ulUnused;
    /* A sender's own. A receiver's is allocated by the library; ktn_xapi_free releases it. */
    unsigned char *pPayload;
    unsigned long ulPayloadSize;
    /* errno of the last failure. The caller clears it. */
    unsigned int uiStatus;
    unsigned int uiUnused[3];
} KTNET_PACKET;

/* Bytes of one unframed datagram. */
typedef struct KTNET_BUFFER {
    unsigned char *pBuffer;
    unsigned long ulBufferLen;
} KTNET_BUFFER;

/* ---- Life of an endpoint */

/* Makes a descriptor with defaults (no socket, time-out 1000 ms). Overwrites *ppDesc with it.
 * iMode: 0 or 1, kept for diagnosis. iVersion: 2.
 * Returns 1; -1 for another version, a null ppDesc or a lack of memory (*ppDesc is then null). */
int ktn_xapi_ktnet_init_with_version(KTNET_ENDPOINT **ppDesc, int iMode, int iVersion);

/* Opens the socket that the descriptor describes and stores it in iSocket.
 * Local, uiListen 1: listens at szLocal, file mode 0600. Replaces a stale socket file of this user. Fails
 * if the path holds anything else: no socket, another user's socket, or one that a live listener serves.
 * Local, uiListen 0: makes a client socket for szPeer.
 * UDP, uiListen 0: sends to szPeer:uiPort. To a group, KTNET_MULTICAST_IF names the sending interface (name
 *   or address), else the routing table does; receivers on this machine get a copy.
 * UDP, uiListen 1: receives what is sent to szPeer:uiPort. Joins a group on the interface of szLocal;
 *   receives an address of this machine as plain unicast.
 * Returns 1, or a negative errno; the descriptor then has no socket. */
int ktn_xapi_ktnet_create(KTNET_ENDPOINT *pDesc);

/* Accepts one connection into a new descriptor in *ppConn. It inherits the listener's time-out. Of the
 * pending connections it is the first whose frame has arrived, so that a client that sends nothing holds up
 * nobody. A client that sends no whole frame within the time-out is dropped, and so is one that closes
 * without a byte, or whose user is neither this one nor root. While 64 clients are silent, each next one
 * takes the place of the one silent for the longest, after 100 ms. Returns 1; 0 if there is none; a negative
 * errno. *ppConn is null for every result but 1. */
int ktn_xapi_ktnet_accept(KTNET_ENDPOINT *pDesc, KTNET_ENDPOINT **ppConn);

/* Connects a client descriptor to szPeer. Waits at most uiTimeoutMs while the listener's queue is full.
 * Checks who serves the path before a byte is sent: this user, root, or a user that the environment variable
 * KTNET_PEER_USERS names (names or numbers, separated by commas; where it is not set, those that the library
 * was built with). Anybody else is refused with -EACCES.
 * Returns 1, or a negative errno. */
int ktn_xapi_ktnet_connect(KTNET_ENDPOINT *pDesc);

/* Sets the multicast hop limit of a sending UDP socket. iFamily: 0 (IPv4). iHops: 0 to 255. iOn: 1 also
 * sends a copy to receivers on this machine, 0 does not. Returns 1, or a negative errno. */
int ktn_xapi_hops_socket(int iFamily, int iSocket, int iHops, int iOn);

/* Closes the descriptor's socket; removes a listener's socket file. Returns 1, 0 if there was no socket. */
int ktn_xapi_ktnet_close(KTNET_ENDPOINT *pDesc);

/* Closes what is still open, releases the descriptor and sets *ppDesc to null. Returns 1, 0 if there was
 * none. */
int ktn_xapi_ktnet_delete(KTNET_ENDPOINT **ppDesc);

/* ---- Transfer */

/* Waits at most uiTimeoutMs until iSocket is readable. A listener is readable once ktn_xapi_ktnet_accept has
 * a connection to give. Returns 1 readable, 0 time-out (also if a signal cut the wait short), or a negative
 * errno. */
int ktn_xapi_rx_poll_socket(int iSocket, unsigned int uiTimeoutMs);

/* Receives one whole frame within uiTimeoutMs: header words, ulPayloadLen and the payload. Allocates the
 * payload's buffer, after it has checked magic, version and length; an empty payload has none.
 * Returns 1; 0 if the peer closed without sending a byte; a negative errno (-EPROTO no frame, -EMSGSIZE too
 * long, -ETIMEDOUT). pPayload is null for every result but 1. */
int ktn_xapi_ktnet_rx_data(KTNET_ENDPOINT *pConn, KTNET_PACKET *pPacket);

/* Sends the header words and ulPayloadLen bytes at pPayload as one frame. On UDP a frame is one datagram, and
 * a short fault is ridden out as by ktn_xapi_ktnet_tx_a_packet.
 * Returns 1, or a negative errno (-EMSGSIZE for a frame over the maximum of its kind). */
int ktn_xapi_ktnet_tx_data(KTNET_ENDPOINT *pDesc, KTNET_PACKET *pPacket);

/* Sends the buffer as one unframed datagram. Allocates nothing. iFlags: 0. Rides out a short fault of the
 * network (no buffers, no route, an interface that is gone) for at most half a second. If the fault lasts,
 * the sends after it fail at once, until one succeeds. Finds the interface again that KTNET_MULTICAST_IF
 * names, once it is back.
 * Returns the bytes sent (1 for an empty buffer), or a negative errno. */
int ktn_xapi_ktnet_tx_a_packet(KTNET_ENDPOINT *pDesc, int iFlags, KTNET_BUFFER *pBuffer);

/* Prints the header for diagnosis on standard output. */
void ktn_xapi_dump_packet_info(const KTNET_PACKET *pPacket);

/* Releases a payload of ktn_xapi_ktnet_rx_data. Ignores null. */
void ktn_xapi_free(void *pPayload);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
