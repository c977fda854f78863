/* qxapi.h - libqxapi: threads, console, assertion reports, plug-in arguments, CRC-32, SEED, registry,
 * stored-file streams, file casters, log records, time and text helpers.
 *
 * Every call is safe from any thread unless its comment says otherwise. Only one thread at a time may use a
 * stream, a caster or a registry handle. */
#ifndef QXAPI_H
#define QXAPI_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

#if defined(__GNUC__)
#define QXAPI_FORMAT(text, first) __attribute__((format(printf, text, first)))
#else
#define QXAPI_FORMAT(text, first)
#endif

/* ---- Threads */

/* Starts pBody(pArgument) on a new detached thread. The thread takes no signals of the process.
 * pszTag: who starts it; becomes the thread's name. pszTag and iLine stand in the error line.
 * Returns 1 started, 0 not started (the reason is on standard error). */
int qxapi_detached_thread_tag(void *(*pBody)(void *), void *pArgument, const char *pszTag, int iLine);

/* ---- Console and assertion reports */

/* Writes to the host's console: standard output, flushed. Returns what printf returns; -1 if the flush
 * fails. */
int qxapi_printf(const char *pszFormat, ...) QXAPI_FORMAT(1, 2);

/* Reports a condition that does not hold. If iCondition is 0, prints one line with file, function, line and
 * pszText on standard error. Always returns. */
void qxapi_assert_gateway(int iCondition, const char *pszFile, const char *pszFunction, int iLine,
                          const char *pszText);

/* ---- Plug-in arguments */

/* What a host hands to a plug-in. The host owns the texts. */
struct ts_qxapi_plugin_argument {
    int iCount;
    const char *const *ppszText;
};

/* Returns the number of arguments, 0 for a null record. Returns -1 if the record contradicts itself: the
 * count is negative, or there is a count without texts. */
int qxapi_get_plugin_argument(const struct ts_qxapi_plugin_argument *pArgument);

/* ---- CRC-32 */

/* Returns the CRC-32 of IEEE 802.3 over ulLength bytes: reflected polynomial EDB88320, inverted at the end.
 * uiInitial: the register's initial value. 0xFFFFFFFF starts a new CRC; "123456789" then gives CBF43926.
 * To continue after an earlier piece, pass the complement of its result. */
unsigned int qxapi_crc32(unsigned int uiInitial, const void *pData, unsigned long ulLength);

/* ---- SEED (RFC 4269) */

/* Both calls decrypt pData in place with the 16 bytes at pKey. Each block of 16 bytes is decrypted on its
 * own (ECB). The last bytes stay as they are if they do not fill a block.
 * The fast call gives the same result. It keeps the calling thread's last key schedule for the next call. */
void qxapi_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey);
void qxapi_fast_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey);

/* ---- Registry */

struct ts_qx_registry;

/* The operations of a registry handle. */
struct ts_qx_registry_operations {
    /* Returns the value of pszKeyPath, or null if there is no such key. The handle owns the text.
     * *piLength: takes the length in bytes without the terminating zero, 0 if there is no such key. */
    const char *(*pLookup)(struct ts_qx_registry *pRegistry, const char *pszKeyPath, int *piLength);
};

/* A registry handle begins with its operations. What follows belongs to the library. */
struct ts_qx_registry {
    const struct ts_qx_registry_operations *pOperations;
};

/* Opens the registry of a master and a slave file. Both are text with one key=value a line; a line that
 * begins with # is a comment. A key of the slave overrides the same key of the master. A line that is no
 * key=value is skipped and reported on standard error. The environment variable QX_REGISTRY_ROOT, if set,
 * is put in front of both paths.
 * uiFlags: 0x10000002 opens for reading (any value is taken).
 * Returns a handle, or null if neither file can be read or memory runs out. */
struct ts_qx_registry *QX_OpenRegistry(const char *pszMaster, const char *pszSlave, unsigned int uiFlags);

/* Closes the handle and releases its values. Ignores null. */
void QX_CloseRegistry(struct ts_qx_registry *pRegistry);

/* ---- Stored-file streams */

/* One packet of a stream. The stream lends it until pReleasePacket. */
struct ts_qxapi_packet {
    /* ASF: one data packet. TS: up to seven packets of 188 bytes. */
    const unsigned char *pData;
    /* Bytes at pData. */
    unsigned int uiLength;
};

/* A stored file, read as packets. Each packet is due at a time of its own, on a monotonic clock that starts
 * with pStart. */
struct ts_qxapi_stream {
    /* Reads the file's head and starts the clock. Returns 1 started, 0 not (the reason is on standard
     * error). The calling thread's timer slack is least until it closes the stream, so that
     * qxapi_load_balance wakes it exactly. */
    int (*pStart)(struct ts_qxapi_stream *pStream);
    /* Returns non-zero once every packet has been handed out, or once the file can no longer be read. */
    int (*pIsAtEnd)(struct ts_qxapi_stream *pStream);
    /* Returns the next packet once it is due, never before. Returns null while none is due, while one is
     * still lent, and at the end of the stream. */
    struct ts_qxapi_packet *(*pNextPacket)(struct ts_qxapi_stream *pStream);
    /* Takes a packet back. */
    void (*pReleasePacket)(struct ts_qxapi_stream *pStream, struct ts_qxapi_packet *pPacket);
};

/* Opens a stored file. Its content decides whether it is ASF or an MPEG transport stream.
 * Returns the stream, or null (the reason is on standard error). */
struct ts_qxapi_stream *qxapi_open_stream(const char *pszFile);

/* How far a stream has come. */
struct ts_qxapi_stream_progress {
    unsigned long ulPositionMs; /* play-out time of the packet handed out last, from the stream's begin */
    unsigned long ulLengthMs;   /* play-out time of the whole file, as found at the start; 0: not known */
    unsigned long ulLate;       /* packets handed out more than 10 ms after their time */
};

/* Fills *pProgress for a started stream. Returns 1, or 0 if the stream has not been started; *pProgress then
 * stays as it is. Reads no clock and no file. */
int qxapi_stream_progress(const struct ts_qxapi_stream *pStream, struct ts_qxapi_stream_progress *pProgress);

/* Closes the file and releases the stream. Ignores null. */
void qxapi_close_stream(struct ts_qxapi_stream *pStream);

/* Pauses the calling thread while a stream has no packet due. The pause ends when the next packet is due of
 * the stream that the thread asked last, and after a few milliseconds at the latest. */
void qxapi_load_balance(void);

/* ---- File casters */

/* Sends ASF data packets as Media Stream Broadcast packets. */
struct ts_qxapi_asfcast {
    /* 0: the default playout mode. There is no other. */
    unsigned int uiMode;
    /* The hop limit if the station file names none. */
    unsigned int uiHops;
    /* Takes group, port and format from the station file. uiFormatIndex: 0 the first format, N the one
     * called FormatN. Returns 1, or 0 if the file cannot be read, is no station file or lacks the format
     * (the reason is on standard error). */
    int (*pSetStation)(struct ts_qxapi_asfcast *pCaster, const char *pszNSC, unsigned int uiFormatIndex);
    /* Sends to pszTarget instead of the station's group. Returns 1, or 0 if the target is invalid. */
    int (*pSetTarget)(struct ts_qxapi_asfcast *pCaster, const char *pszTarget, unsigned int uiPort);
    /* Sends one data packet. Returns 1 sent, 0 no target is set, -1 the send failed (the reason is on
     * standard error). */
    int (*pSend)(struct ts_qxapi_asfcast *pCaster, const unsigned char *pData, unsigned int uiLength);
};

/* Sends runs of transport stream packets, each run as one UDP datagram. */
struct ts_qxapi_tscast {
    /* 0: the default playout mode. There is no other. */
    unsigned int uiMode;
    /* Opens the socket to the target.
     * pszAux: the sending interface (name or address), null for the default one. iReserved: -1.
     * pszTarget: "address:port" or "address". uiPort: the port if the text has none. uiHops: multicast hop
     * limit. Returns 1, or 0 (the reason is on standard error). */
    int (*pSetUp)(struct ts_qxapi_tscast *pCaster, const char *pszAux, int iReserved, const char *pszTarget,
                  unsigned int uiPort, unsigned int uiHops);
    /* Sends one datagram. Returns 1 sent, 0 not set up, -1 the send failed (the reason is on standard
     * error). */
    int (*pSend)(struct ts_qxapi_tscast *pCaster, const unsigned char *pData, unsigned int uiLength);
};

/* The open calls return a caster without a target, or null if memory runs out. The close calls release the
 * caster and its socket; they ignore null. */
struct ts_qxapi_asfcast *qxapi_open_asfcast(void);
void qxapi_close_asfcast(struct ts_qxapi_asfcast *pCaster);
struct ts_qxapi_tscast *qxapi_open_tscast(void);
void qxapi_close_tscast(struct ts_qxapi_tscast *pCaster);

/* ---- Log records, time, text */

/* Writes one record to the host's log: "[pszTag] " and the formatted text, with a newline added if the text
 * has none. The log is the file that QX_LOG_FILE names (the record is appended), else standard output.
 * Returns the number of bytes written, -1 on an error. */
int qxapi_log_printf(const char *pszTag, const char *pszFormat, ...) QXAPI_FORMAT(2, 3);

/* Reads the wall clock: seconds since the epoch, and microseconds within that second. Either output may be
 * null. Returns 1. */
int qxapi_time_ex2(unsigned long *pulSeconds, unsigned long *pulMicroseconds);

/* Stores the local calendar fields of ulSeconds. Returns 1, or 0 if there are none; *pLocal is then all
 * zero. */
int qxapi_local_time(unsigned long ulSeconds, struct tm *pLocal);

/* Both calls return pszText unless it is null. Else the first returns "NULL", the second pszFallback. */
const char *qxapi_check_string(const char *pszText);
const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
