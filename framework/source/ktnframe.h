// ktnframe.h - writing a KTNet frame's header; reading one is in the public qxapi_ktn_frame.h.
#ifndef FRAMEWORK_KTNFRAME_H
#define FRAMEWORK_KTNFRAME_H

#include <qxapi_ktn_frame.h>

// Writes the header of Frame (pPayload is not looked at) into the KTNET_FRAME_HEADER_SIZE bytes at pBytes.
void ktnFrameEncodeHeader(unsigned char *pBytes, const KTNET_FRAME &frame);

#endif
