/* msginfo.h - the PC message: a text for every receiver, with priority, repeats and validity times.
 *
 * A record belongs to one owner at a time. MAKEMSGInfo and COPYaMSGInfo allocate it, ELIMINATEMSGInfo
 * releases it with its text. The operations take no lock. */
#ifndef PCCAST_MSGINFO_H
#define PCCAST_MSGINFO_H

#ifdef __cplusplus
extern "C" {
#endif

#define PCMBC_CMD_MSG 0x40020ul    /* broadcast the message */
#define PCMBC_CMD_CANCEL 0x40023ul /* cancel the message of the same identity */
#define PCMBC_TEXT_MAX 65429ul     /* bytes of the longest text that fits the receivers' datagram */

/* A message's identity is uliEPGID, ulCT, ulST and ulET. Times are whole seconds since the epoch. */
typedef struct MSGInfo {
    unsigned long ulCMD;
    unsigned long uliEPGID;
    unsigned long ulPriority; /* 1: ahead of all ordinary messages; any other value waits among those, and
                                 one above 1 that is on air then holds its place against them as 1 does */
    unsigned long ulCT;       /* creation time: newest first */
    unsigned long ulST;       /* start time */
    unsigned long ulET;       /* end time: dropped from then on */
    unsigned long ulRepeat;   /* broadcasts still to be made; 0: until ulET */
    unsigned long ulAttr3;    /* passed through to the receivers */
    unsigned long ulAttr1;    /* passed through to the receivers */
    char *pMSGSTR;            /* the text, NUL-terminated, owned */
} MSGInfo;

/* Makes a record with a copy of the text in *ppInfo, which must hold null; every number is 0.
 * Returns 1 made; 0 no memory for the record; -1 slot not empty (printed), no text, or no memory for it. */
int MAKEMSGInfo(MSGInfo **ppInfo, const char *pText);

/* Makes a copy of pSrc in *ppMSGDST, which must hold null. Returns 1 copied; 0 no source, no text in it, or
 * no memory (*ppMSGDST is null); -1 slot not empty (printed). */
int COPYaMSGInfo(const MSGInfo *pSrc, MSGInfo **ppMSGDST);

/* Releases the record and empties the slot. Returns 1, or 0 when the slot was empty already. */
int ELIMINATEMSGInfo(MSGInfo **ppInfo);

/* iMode 1: the same uliEPGID is enough; 0: ulCT, ulST and ulET must be equal too; any other mode finds none
 * equal. Returns 0 same; 1 different; -1 a record is missing. */
int COMPAREMSGInfo(const MSGInfo *pA, const MSGInfo *pB, int iMode);

/* Returns 1 valid; -1 no record, or a PCMBC_CMD_MSG record without text. */
int VALIDATEMSGInfo(const MSGInfo *pInfo);

/* Prints the record on standard output, under the caller's name. Returns 0. */
int PRINTMSGInfo(const MSGInfo *pInfo, const char *pCaller);

#ifdef __cplusplus
}
#endif
#endif
