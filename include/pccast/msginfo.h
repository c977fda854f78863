/* msginfo.h - the PC message: a text for every receiver, with its priority, repeats and times.
 *
 * One owner holds a record at a time. MAKEMSGInfo and COPYaMSGInfo allocate it. ELIMINATEMSGInfo releases it
 * with its text. The operations take no lock: only the thread that holds a record may use it. */
#ifndef PCCAST_MSGINFO_H
#define PCCAST_MSGINFO_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- ulCMD */

/* Broadcast the message. */
#define PCMBC_CMD_MSG 0x40020ul
/* Cancel the message with the same identity. */
#define PCMBC_CMD_CANCEL 0x40023ul

/* Longest text in bytes. A longer text does not fit the datagram to the receivers. */
#define PCMBC_TEXT_MAX 65429ul

/* uliEPGID, ulCT, ulST and ulET together are the message's identity.
 * Times are whole seconds since the epoch. */
typedef struct MSGInfo {
    /* PCMBC_CMD_... */
    unsigned long ulCMD;
    /* Programme of the message. */
    unsigned long uliEPGID;
    /* 1 goes ahead of all ordinary messages. A message with any other value waits among the ordinary ones.
     * Once on air, a value above 1 keeps its place against them just as 1 does. */
    unsigned long ulPriority;
    /* Creation time. The newest message goes first. */
    unsigned long ulCT;
    /* Start time. */
    unsigned long ulST;
    /* End time. The message is dropped from then on. */
    unsigned long ulET;
    /* How many broadcasts are still to be made. 0 means: repeat until ulET. */
    unsigned long ulRepeat;
    /* Passed on to the receivers. */
    unsigned long ulAttr3;
    /* Passed on to the receivers. */
    unsigned long ulAttr1;
    /* The text, NUL-terminated. The record owns it. */
    char *pMSGSTR;
} MSGInfo;

/* Makes a record with a copy of the text in *ppInfo, which must hold null. Every number is 0.
 * Returns 1 made; 0 no memory for the record; -1 *ppInfo is not empty (printed), there is no text, or no
 * memory for the text. */
int MAKEMSGInfo(MSGInfo **ppInfo, const char *pText);

/* Makes a copy of pSrc in *ppMSGDST, which must hold null.
 * Returns 1 copied; 0 no source, no text in it, or no memory (*ppMSGDST stays null); -1 *ppMSGDST is not
 * empty (printed). */
int COPYaMSGInfo(const MSGInfo *pSrc, MSGInfo **ppMSGDST);

/* Releases the record and sets *ppInfo to null. Returns 1; 0 *ppInfo was null already. */
int ELIMINATEMSGInfo(MSGInfo **ppInfo);

/* Compares two records. iMode 1 compares uliEPGID alone. iMode 0 compares ulCT, ulST and ulET too. Under any
 * other mode no records are equal.
 * Returns 0 equal; 1 different; -1 a record is missing. */
int COMPAREMSGInfo(const MSGInfo *pA, const MSGInfo *pB, int iMode);

/* Returns 1 valid; -1 no record, or a PCMBC_CMD_MSG record without text. */
int VALIDATEMSGInfo(const MSGInfo *pInfo);

/* Prints the record on standard output, with the caller's name. Returns 0. */
int PRINTMSGInfo(const MSGInfo *pInfo, const char *pCaller);

#ifdef __cplusplus
}
#endif
#endif
