/* castinfo.h - the cast request: what to cast, where to, and from when to when.
 *
 * One owner holds a record at a time. MAKECASTInfo and COPYaCASTInfo allocate it. ELIMINATECASTInfo releases
 * it with everything in it. The operations take no lock: only the thread that holds a record may use it. */
#ifndef PCCAST_CASTINFO_H
#define PCCAST_CASTINFO_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- ulCMD */

/* Put the cast on air from ulST until ulET. */
#define CAST_CMD_START 1ul
/* Cancel the first equal request that is still waiting. If none waits, end the cast on air. */
#define CAST_CMD_STOP 2ul
/* The cast is over. */
#define CAST_CMD_END 3ul

/* ---- ulCASTType */

/* Play the stored file pCASTFile. */
#define CAST_TYPE_FILE 1ul
/* Relay the stream that arrives at pSRCIP:usSRCPort. */
#define CAST_TYPE_STREAM 2ul
/* Works like CAST_TYPE_STREAM. */
#define CAST_TYPE_STREAM_2 3ul

/* ---- ulSTREAMFormat: any other value is an unknown format */

#define CAST_FORMAT_ASF 0x2010ul
#define CAST_FORMAT_ASF_2 0x2016ul
#define CAST_FORMAT_TS 0x2021ul
#define CAST_FORMAT_TS_2 0x2005ul
#define CAST_FORMAT_TS_3 0x2025ul

/* ---- iEncryptionType: any other value means no encryption */

#define CAST_ENCRYPTION_SEED 2
#define CAST_ENCRYPTION_FAST_SEED 5

/* ---- iASFSplit */

/* Send each received datagram on as it is. */
#define CAST_SPLIT_NONE 0
/* A received datagram holds chunks. A 16-bit little-endian length stands before each chunk. Send each chunk
 * as a datagram of its own, without its length. */
#define CAST_SPLIT_CHUNKS 1

/* Times are whole seconds since the epoch. Texts are NUL-terminated, and the record owns them. */
typedef struct CASTInfo {
    /* CAST_CMD_... */
    unsigned long ulCMD;
    /* Programme that the cast carries. */
    unsigned long uliEPGID;
    /* Creation time of the request. The newer of two requests takes precedence. */
    unsigned long ulCT;
    /* CAST_TYPE_... */
    unsigned long ulCASTType;
    /* CAST_FORMAT_... */
    unsigned long ulSTREAMFormat;
    /* Start time. */
    unsigned long ulST;
    /* End time. */
    unsigned long ulET;
    /* Source address, dotted IPv4. Stream types only. */
    char *pSRCIP;
    /* Destination group, dotted IPv4. */
    char *pDSTIP;
    /* Source port. Stream types only. */
    unsigned short usSRCPort;
    /* Destination port. */
    unsigned short usDSTPort;
    /* Path of the file. File type only. */
    char *pCASTFile;
    /* Stream identifier. File type only. */
    unsigned long ulMSID;
    /* CAST_ENCRYPTION_...: how the relay decrypts each datagram. */
    int iEncryptionType;
    /* Bytes at pEncryptionKey. */
    int iEncryptionKeyLen;
    /* The key, allocated with malloc. The record owns it. */
    unsigned char *pEncryptionKey;
    /* CAST_SPLIT_... */
    int iASFSplit;
} CASTInfo;

/* Makes a record of type ulCASTType in *ppInfo, which must hold null. The record gets copies of pDSTIP and of
 * its source: pSRCIP for the stream types, pCASTFile for the file type. Every other field is 0. *ppInfo
 * changes only when the result is 1.
 * Returns 1 made; 0 no memory for the record or for the destination; -1 refused. Refused means: *ppInfo is
 * not empty (printed), the type is invalid (printed), the source, file or destination is missing, or memory
 * runs out for the source or file. */
int MAKECASTInfo(CASTInfo **ppInfo, const char *pSRCIP, const char *pDSTIP, const char *pCASTFile,
                 unsigned long ulCASTType);

/* Makes a deep copy of pSrc in *ppCASTDST, which must hold null. If the record is not encrypted, its key is
 * not copied.
 * Returns 1 copied; 0 no source, or the copy could not be made; -1 *ppCASTDST is not empty (printed). */
int COPYaCASTInfo(const CASTInfo *pSrc, CASTInfo **ppCASTDST);

/* Releases the record and sets *ppInfo to null. Returns 1; 0 *ppInfo was null already. */
int ELIMINATECASTInfo(CASTInfo **ppInfo);

/* Returns 1 complete for its type; 0 incomplete, or invalid type; -1 no record, or no destination. */
int VALIDATECASTInfo(const CASTInfo *pInfo);

/* Compares two records. iMode 1 compares uliEPGID alone. iMode 0 compares ulCASTType, ulST, ulET and
 * usDSTPort too. Under any other mode no records are equal.
 * Returns 0 equal; 1 different; -1 a record is missing. */
int COMPARECASTInfo(const CASTInfo *pA, const CASTInfo *pB, int iMode);

/* Prints the record on standard output, with the caller's name. Returns 0. */
int PRINTCASTInfo(const CASTInfo *pInfo, const char *pCaller);

#ifdef __cplusplus
}
#endif
#endif
