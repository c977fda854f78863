/* castinfo.h - the cast request: what to cast, where to, and from when to when.
 *
 * A record belongs to one owner at a time. MAKECASTInfo and COPYaCASTInfo allocate it, ELIMINATECASTInfo
 * releases it with everything in it. The operations take no lock: a record is used by the thread that holds
 * its pointer. */
#ifndef PCCAST_CASTINFO_H
#define PCCAST_CASTINFO_H

#ifdef __cplusplus
extern "C" {
#endif

/* ulCMD */
#define CAST_CMD_START 1ul /* put the cast on air from ulST until ulET */
#define CAST_CMD_STOP 2ul  /* cancel the equal request that waits, else end the cast on air */
#define CAST_CMD_END 3ul   /* the cast is over */

/* ulCASTType */
#define CAST_TYPE_FILE 1ul     /* cast the stored file pCASTFile */
#define CAST_TYPE_STREAM 2ul   /* relay the stream that arrives at pSRCIP:usSRCPort */
#define CAST_TYPE_STREAM_2 3ul /* handled like CAST_TYPE_STREAM */

/* ulSTREAMFormat; any other value is an unknown content format */
#define CAST_FORMAT_ASF 0x2010ul
#define CAST_FORMAT_ASF_2 0x2016ul
#define CAST_FORMAT_TS 0x2021ul
#define CAST_FORMAT_TS_2 0x2005ul
#define CAST_FORMAT_TS_3 0x2025ul

/* iEncryptionType; any other value: none */
#define CAST_ENCRYPTION_SEED 2
#define CAST_ENCRYPTION_FAST_SEED 5

/* iASFSplit */
#define CAST_SPLIT_NONE 0 /* a received datagram is sent on as it is */
#define CAST_SPLIT_CHUNKS                                                                                    \
    1 /* it holds chunks, each after its 16-bit little-endian length; each is sent alone */

/* Times are whole seconds since the epoch. Texts are NUL-terminated and owned by the record. */
typedef struct CASTInfo {
    unsigned long ulCMD;
    unsigned long uliEPGID;        /* programme that the cast carries */
    unsigned long ulCT;            /* creation time of the request: the newer request takes precedence */
    unsigned long ulCASTType;      /* CAST_TYPE_... */
    unsigned long ulSTREAMFormat;  /* CAST_FORMAT_... */
    unsigned long ulST;            /* start time */
    unsigned long ulET;            /* end time */
    char *pSRCIP;                  /* source address, dotted IPv4 (stream types) */
    char *pDSTIP;                  /* destination group, dotted IPv4 */
    unsigned short usSRCPort;      /* source port (stream types) */
    unsigned short usDSTPort;      /* destination port */
    char *pCASTFile;               /* path of the file (file type) */
    unsigned long ulMSID;          /* stream identifier of a file cast */
    int iEncryptionType;           /* CAST_ENCRYPTION_... : how the relay decrypts each datagram */
    int iEncryptionKeyLen;         /* bytes at pEncryptionKey */
    unsigned char *pEncryptionKey; /* owned, from malloc */
    int iASFSplit;                 /* CAST_SPLIT_... */
} CASTInfo;

/* Makes a record of type ulCASTType in *ppInfo, which must hold null, with copies of pDSTIP and of pSRCIP
 * (stream types) or pCASTFile (file type); every other field is 0 for the caller to fill.
 * Returns 1 made; 0 no memory for the record or the destination; -1 refused: slot not empty (printed),
 * invalid type (printed), source, file or destination missing or its copy failed. *ppInfo changes only on 1.
 */
int MAKECASTInfo(CASTInfo **ppInfo, const char *pSRCIP, const char *pDSTIP, const char *pCASTFile,
                 unsigned long ulCASTType);

/* Makes a deep copy of pSrc in *ppCASTDST, which must hold null. A record without encryption is copied
 * without its key. Returns 1 copied; 0 no source or the copy could not be made; -1 slot not empty (printed).
 */
int COPYaCASTInfo(const CASTInfo *pSrc, CASTInfo **ppCASTDST);

/* Releases the record and empties the slot. Returns 1, or 0 when the slot was empty already. */
int ELIMINATECASTInfo(CASTInfo **ppInfo);

/* Returns 1 complete for its type; 0 incomplete or invalid type; -1 no record, or no destination. */
int VALIDATECASTInfo(const CASTInfo *pInfo);

/* iMode 1: the same uliEPGID is enough; 0: ulCASTType, ulST, ulET and usDSTPort must be equal too; any other
 * mode finds none equal. Returns 0 equal; 1 different; -1 a record is missing. */
int COMPARECASTInfo(const CASTInfo *pA, const CASTInfo *pB, int iMode);

/* Prints the record on standard output, under the caller's name. Returns 0. */
int PRINTCASTInfo(const CASTInfo *pInfo, const char *pCaller);

#ifdef __cplusplus
}
#endif
#endif
