// bciengine.h - the record and the packets of the announcement engine.
//
// Only the announcement thread and the tests call these.
#ifndef PCCAST_BCIENGINE_H
#define PCCAST_BCIENGINE_H

#include <pccast/castinfo.h>

#include "wire.h"

#include <qxapi_ktn.h>

#include <cstdint>

extern "C" {

// What is announced. Times are in seconds.
typedef struct BCIInfo {
    // BCI_CMD_...
    uint32_t ulCMD;
    unsigned long uliEPGID;
    // BCI_TYPE_...
    uint32_t ulType;
    // BCI_FORMAT_..., or the cast's own format value.
    uint32_t ulFormat;
    unsigned long ulST;
    // The announcement is repeated until then.
    unsigned long ulET;
    // The record owns it. H.264 formats only, like usDSTPort.
    char *pDSTIP;
    unsigned short usDSTPort;
} BCIInfo;

// Fills the record from a request. Copies pDSTIP only into an empty field. Prints an unknown format and takes
// it as it is.
// Returns 1; -1 a pointer is null, or the command or the type cannot be announced (that field is
// then unchanged).
int PCCASTtoBCIInfo(const CASTInfo *pInfo, BCIInfo *pBCI);

// Releases pDSTIP and sets it to null. Does nothing for a null record.
void ELIMINATEBCIInfo(BCIInfo *pBCI);

// Closes the endpoint in *ppDesc, if any, and opens the announcement endpoint there.
// Returns a positive result, or the result of the call that failed: 0 or less, and *ppDesc is null.
int initBCITxNet(KTNET_ENDPOINT **ppDesc);

// Sets the packet's command and builds the end announcement as its payload. The caller releases pPayload with
// free.
// Returns the payload's length; 0 if memory runs out (pPayload is then null).
int makeBCIEndPacket(const BCIInfo *pBCI, KTNET_PACKET *pPacket);
}

#endif
