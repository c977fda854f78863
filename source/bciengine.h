// bciengine.h - the announcement engine's record and packets.
//
// Used by the announcement thread alone, and by the tests.
#ifndef PCCAST_BCIENGINE_H
#define PCCAST_BCIENGINE_H

#include <pccast/castinfo.h>

#include "wire.h"

#include <qxapi_ktn.h>

#include <cstdint>

extern "C" {

// What is announced. Times in seconds.
typedef struct BCIInfo {
    uint32_t ulCMD; // BCI_CMD_...
    unsigned long uliEPGID;
    uint32_t ulType;   // BCI_TYPE_...
    uint32_t ulFormat; // BCI_FORMAT_..., or the cast's own format value
    unsigned long ulST;
    unsigned long ulET; // the announcement is repeated until then
    char *pDSTIP;       // owned; H.264 formats only
    unsigned short usDSTPort;
} BCIInfo;

// Fills the record from a request; pDSTIP is copied only into an empty field. An unknown format is printed
// and taken as it is. Returns 1; -1 when the command or the type is none that can be announced (that field is
// then left as it was) or a pointer is null.
int PCCASTtoBCIInfo(const CASTInfo *pInfo, BCIInfo *pBCI);

// Releases pDSTIP and sets it to null. A null record is ignored.
void ELIMINATEBCIInfo(BCIInfo *pBCI);

// Opens the announcement endpoint into *ppDesc, after closing one that is there. Returns a positive result,
// or the failing call's (0 or less; *ppDesc is then null).
int initBCITxNet(KTNET_ENDPOINT **ppDesc);

// Sets the command and builds the end announcement into pPacket; the caller releases pPayload with free.
// Returns the payload's length; 0 when memory runs out (pPayload is then null).
int makeBCIEndPacket(const BCIInfo *pBCI, KTNET_PACKET *pPacket);
}

#endif
