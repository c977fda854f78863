// filecast.h - the two file cast drivers: each plays one stored file from start to end on the calling thread.
//
// Called by the recast engine. A driver owns its stream and its caster for the call's duration; the engine's
// control block it only reads.
#ifndef PCCAST_FILECAST_H
#define PCCAST_FILECAST_H

#include "engines.h"

extern "C" {

// Filled by the caller, read-only to the driver.
typedef struct ASFCASTARG {
    unsigned int uiMode; // the caster's mode
    const char *pszFile;
    const char *pszNSC;         // station file
    unsigned int uiFormatIndex; // format within the station file
    const char *pszTarget;      // null: the station file's
    unsigned int uiTargetPort;
    KTPLUGIN_INFO_TAG *pBlock;
    CASTInfo *pInfo; // for the log record
} ASFCASTARG;

typedef struct TSCASTARG {
    unsigned int uiMode; // the caster's mode
    const char *pszAux;  // first text of the caster's set-up; may be null
    const char *pszFile;
    const char *pszTarget;      // "address:port"
    unsigned int uiCasterParam; // last number of the caster's set-up
    KTPLUGIN_INFO_TAG *pBlock;
    CASTInfo *pInfo; // for the log record
} TSCASTARG;

// Play the file until it is exhausted, the block's eState is above 1, the process breaks off or a send fails,
// and write one "play" log record. Failures are reported through qxapi_assert_gateway. Return 1 ended
// normally; -1 the stream could not be opened or started (no log record) or the caster could not be opened;
// any other value is the failed send's result.
int qxbox_asfcast(ASFCASTARG *pArg);
int qxbox_tscast(TSCASTARG *pArg);
}

#endif
