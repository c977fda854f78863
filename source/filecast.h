// filecast.h - the two file cast drivers. Each plays one stored file from start to end.
//
// The recast engine calls them on its thread. A driver owns its stream and its caster during the call. It
// only reads the engine's control block.
#ifndef PCCAST_FILECAST_H
#define PCCAST_FILECAST_H

#include "engines.h"

extern "C" {

// The caller fills these records. The drivers only read them.
typedef struct ASFCASTARG {
    // The caster's mode.
    unsigned int uiMode;
    const char *pszFile;
    // Path of the station file.
    const char *pszNSC;
    // The format within the station file.
    unsigned int uiFormatIndex;
    // Address to send to; null: the target of the station file.
    const char *pszTarget;
    unsigned int uiTargetPort;
    KTPLUGIN_INFO_TAG *pBlock;
    // For the log record.
    CASTInfo *pInfo;
} ASFCASTARG;

typedef struct TSCASTARG {
    // The caster's mode.
    unsigned int uiMode;
    // The first text of the caster's set-up; may be null.
    const char *pszAux;
    const char *pszFile;
    // Where to send to: "address:port".
    const char *pszTarget;
    // The last number of the caster's set-up: the hop limit.
    unsigned int uiCasterParam;
    KTPLUGIN_INFO_TAG *pBlock;
    // For the log record.
    CASTInfo *pInfo;
} TSCASTARG;

// Play the file, then write one "play" log record. Playing ends at the end of the file, when eState is above
// 1, when the process is told to break off, or when a send fails. Failures are reported through
// qxapi_assert_gateway, but a failed send only by the ASF driver.
// Return 1 ended normally; -1 the stream could not be opened or started (then there is no log record), or the
// caster could not be opened. Any other value is the result of the send that failed.
int qxbox_asfcast(ASFCASTARG *pArg);
int qxbox_tscast(TSCASTARG *pArg);
}

#endif
