/* qxapi.h - libqxapi: threads, console, assertion reports, plug-in arguments, CRC-32, SEED, registry,
 * stored-file streams, file casters, log records, time and text helpers.
 *
 * Every call is safe from any thread unless it says otherwise. A stream, a caster and a registry handle are
 * used by one thread at a time. */
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

/* ---- threads ------------------------------------------------------------------------------------------- */

/* Starts pBody(pArgument) on a new detached thread that takes no signals of the process.
 * pszTag, iLine: who starts it, for the thread's name and for the error line.
 * Returns 1 started, 0 not started (the reason is on standard error). */
int qxapi_detached_thread_tag(void *(*pBody)(void *), void *pArgument, const char *pszTag, int iLine);

/* ---- console and assertion reports ------------------------------------------------------------------------
 */

/* Writes to the host's console (standard output, flushed). Returns as printf. */
int qxapi_printf(const char *pszFormat, ...) QXAPI_FORMAT(1, 2);

/* Reports a condition that does not hold: when iCondition is 0, one line with file, function, line and
 * pszText on standard error. Returns in every case. */
void qxapi_assert_gateway(int iCondition, const char *pszFile, const char *pszFunction, int iLine,
                          const char *pszText);

/* ---- plug-in arguments
 * -------------------------------------------------------------------------------------- */

/* What a host hands to a plug-in: iCount texts, owned by the host. */
struct ts_qxapi_plugin_argument {
    int iCount;
    const char *const *ppszText;
};

/* Returns the number of arguments; 0 for none or a null record, -1 for a record that lies (a negative count,
 * or a count without texts). */
int qxapi_get_plugin_argument(const struct ts_qxapi_plugin_argument *pArgument);

/* ---- CRC-32
 * --------------------------------------------------------------------------------------------------- */

/* CRC-32 of IEEE 802.3 (reflected polynomial EDB88320, final inversion) over ulLength bytes.
 * uiInitial: the register's initial value, 0xFFFFFFFF for a CRC from the start: "123456789" gives CBF43926.
 * To go on after an earlier piece, pass the complement of its result. */
unsigned int qxapi_crc32(unsigned int uiInitial, const void *pData, unsigned long ulLength);

/* ---- SEED (RFC 4269)
 * -------------------------------------------------------------------------------------------- */

/* Both decrypt the whole 16-byte blocks of pData in place, each block on its own (ECB), with the 16 bytes at
 * pKey; a rest of fewer than 16 bytes is left as it is. The fast one works with merged tables and keeps the
 * calling thread's last key schedule. */
void qxapi_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey);
void qxapi_fast_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey);

/* ---- registry
 * --------------------------------------------------------------------------------------------------- */

struct ts_qx_registry;

/* The operations that a registry handle carries. */
struct ts_qx_registry_operations {
    /* Returns the value text of pszKeyPath, owned by the handle, or null when the key is absent; stores its
     * length in bytes, the terminating zero not counted, in *piLength (0 when absent). */
    const char *(*pLookup)(struct ts_qx_registry *pRegistry, const char *pszKeyPath, int *piLength);
};

/* A registry handle begins with its operations; the rest is the library's. */
struct ts_qx_registry {
    const struct ts_qx_registry_operations *pOperations;
};

/* Opens the registry made of a master and a slave file: text, one key=value a line, lines that begin with #
 * are comments; what the slave says overrides the master. The environment variable QX_REGISTRY_ROOT puts
 * another root in front of both paths. Lines that cannot be read as key=value are passed over, each reported
 * on standard error. uiFlags: 0x10000002 opens for reading (any value is taken).
 * Returns a handle, or null when neither file can be read or memory runs out. */
struct ts_qx_registry *QX_OpenRegistry(const char *pszMaster, const char *pszSlave, unsigned int uiFlags);

/* Closes the handle and releases its values. A null handle is ignored. */
void QX_CloseRegistry(struct ts_qx_registry *pRegistry);

/* ---- stored-file streams
 * ---------------------------------------------------------------------------------------- */

/* One packet of a stream, lent to the caller until pReleasePacket. */
struct ts_qxapi_packet {
    const unsigned char *pData; /* ASF: one data packet; TS: up to seven packets of 188 bytes */
    unsigned int uiLength;      /* bytes */
};

/* A stored file read as packets, each due at its own time on a monotonic clock that starts with pStart. */
struct ts_qxapi_stream {
    /* Reads the file's head and starts the clock. Returns 1 started; 0 not (the reason is on standard error).
     */
    int (*pStart)(struct ts_qxapi_stream *pStream);
    /* Returns non-zero once every packet has been handed out, or the file cannot be read on. */
    int (*pIsAtEnd)(struct ts_qxapi_stream *pStream);
    /* Returns the next packet when it is due, null when none is due yet or the stream is at its end. Packets
     * that follow each other closely may come up to about a millisecond early, several at one waking. At most
     * one packet is lent at a time. */
    struct ts_qxapi_packet *(*pNextPacket)(struct ts_qxapi_stream *pStream);
    /* Takes a packet back. */
    void (*pReleasePacket)(struct ts_qxapi_stream *pStream, struct ts_qxapi_packet *pPacket);
};

/* Opens a stored file, ASF or MPEG transport stream by its content.
 * Returns the stream, or null (the reason is on standard error). */
struct ts_qxapi_stream *qxapi_open_stream(const char *pszFile);

/* How far a stream has come. */
struct ts_qxapi_stream_progress {
    unsigned long ulPositionMs; /* play-out time of the packet handed out last, from the stream's begin */
    unsigned long ulLengthMs;   /* play-out time of the whole file; 0: not known */
    unsigned long ulLate;       /* packets handed out more than 10 ms after their time */
};

/* Fills *pProgress for a started stream; called by the thread that reads it. Returns 1, or 0 (nothing known). */
int qxapi_stream_progress(const struct ts_qxapi_stream *pStream, struct ts_qxapi_stream_progress *pProgress);

/* Closes the file and releases the stream. A null stream is ignored. */
void qxapi_close_stream(struct ts_qxapi_stream *pStream);

/* Gives up the processor while a stream has no packet due: until the next packet of the calling thread's
 * last asked stream is due, but no longer than a few milliseconds. */
void qxapi_load_balance(void);

/* ---- file casters
 * --------------------------------------------------------------------------------------------------- */

/* Sends ASF data packets as Media Stream Broadcast packets. */
struct ts_qxapi_asfcast {
    unsigned int uiMode; /* 0: the default playout mode, the only one here */
    unsigned int uiHops; /* hop limit where the station file names none */
    /* Takes group, port and format from the station file. uiFormatIndex: 0 the first format, else FormatN.
     * Returns 1, or 0 (no such file, not a station file, no such format; the reason on standard error). */
    int (*pSetStation)(struct ts_qxapi_asfcast *pCaster, const char *pszNSC, unsigned int uiFormatIndex);
    /* Sends to an explicit target instead of the station's group. Returns 1, or 0 for an invalid one. */
    int (*pSetTarget)(struct ts_qxapi_asfcast *pCaster, const char *pszTarget, unsigned int uiPort);
    /* Sends one data packet. Returns 1 sent; 0 no target is set; -1 the send failed (reason on standard
     * error). */
    int (*pSend)(struct ts_qxapi_asfcast *pCaster, const unsigned char *pData, unsigned int uiLength);
};

/* Sends runs of transport stream packets, one UDP datagram each. */
struct ts_qxapi_tscast {
    unsigned int uiMode; /* 0: the default playout mode, the only one here */
    /* Opens the way out. pszAux: the sending interface (name or address), null for the default one;
     * iReserved: -1; pszTarget: "address:port" or "address"; uiPort: the port when the text has none;
     * uiHops: multicast hop limit. Returns 1, or 0 (the reason on standard error). */
    int (*pSetUp)(struct ts_qxapi_tscast *pCaster, const char *pszAux, int iReserved, const char *pszTarget,
                  unsigned int uiPort, unsigned int uiHops);
    /* Sends one datagram. Returns 1 sent; 0 not set up; -1 the send failed (reason on standard error). */
    int (*pSend)(struct ts_qxapi_tscast *pCaster, const unsigned char *pData, unsigned int uiLength);
};

/* Return a caster with no target yet, or null when memory runs out. The close calls release it and its
 * socket; a null caster is ignored. */
struct ts_qxapi_asfcast *qxapi_open_asfcast(void);
void qxapi_close_asfcast(struct ts_qxapi_asfcast *pCaster);
struct ts_qxapi_tscast *qxapi_open_tscast(void);
void qxapi_close_tscast(struct ts_qxapi_tscast *pCaster);

/* ---- log records, time, text
 * ------------------------------------------------------------------------------------------ */

/* Writes one record to the host's log: standard output, or the file that QX_LOG_FILE names (appended), as
 * "[pszTag] " and the formatted text; a newline is added where the text brings none. Returns the number of
 * bytes written, -1 on an error. */
int qxapi_log_printf(const char *pszTag, const char *pszFormat, ...) QXAPI_FORMAT(2, 3);

/* The wall clock: seconds since the epoch and microseconds of the second. A null output is left out.
 * Returns 1. */
int qxapi_time_ex2(unsigned long *pulSeconds, unsigned long *pulMicroseconds);

/* Local calendar fields of ulSeconds. Returns 1, or 0 when they cannot be had (*pLocal is then all zero). */
int qxapi_local_time(unsigned long ulSeconds, struct tm *pLocal);

/* Return pszText when there is one, else "NULL" or pszFallback. */
const char *qxapi_check_string(const char *pszText);
const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
