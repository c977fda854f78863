// ktnframe.h - writes the header of a KTNet frame. The public qxapi_ktn_frame.h reads one.
//
// Used by the sending calls, on any thread. No state.
#ifndef FRAMEWORK_KTNFRAME_H
#define FRAMEWORK_KTNFRAME_H

#include <qxapi_ktn_frame.h>

// Writes the header of frame to pBytes, KTNET_FRAME_HEADER_SIZE bytes. Does not use pPayload.
void ktnFrameEncodeHeader(unsigned char *pBytes, const KTNET_FRAME &frame);

#endif
