/* commander.h - the calls by which a component hands requests to the running service.
 *
 * They run on the caller's thread. Several threads may call them at once. Each call delivers its request over
 * a local socket of its own. The service may run in this process or in another process of the same user. */
#ifndef PCCAST_COMMANDER_H
#define PCCAST_COMMANDER_H

#include <pccast/castinfo.h>
#include <pccast/msginfo.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The sockets at which the service listens for requests. */
#define PCCAST_CAST_SOCKET "/tmp/PCSTREAM.uds"
#define PCCAST_MESSAGE_SOCKET "/tmp/PCMBC.uds"
/* The socket at which the host pccast serve tells what the service does. Another host need not have it. */
#define PCCAST_VIEW_SOCKET "/tmp/PCVIEW.uds"

/* Submits a cast request. ulCMD: CAST_CMD_START, _STOP or _END. The call writes ulCMD into pInfo->ulCMD, even
 * if it then refuses the request. The record stays the caller's.
 * Returns 1 handed to the sender, whether or not the request arrives; 0 refused: there is no record, it is
 * incomplete (printed), or the command is another one. */
int QX_PCCASTSTREAMCommander(unsigned long ulCMD, CASTInfo *pInfo);

/* Delivers pInfo as a cast request with command ulCMD.
 * Returns the result of the last network step: positive when the request was sent, 0 or negative when a step
 * failed. Returns -1 also when the service is switched off or there is no record. If memory runs out, nothing
 * is sent, and the result is that of opening the socket. */
int TxCASTInfoToPlugIn(unsigned long ulCMD, const CASTInfo *pInfo);

/* Submits a message request. ulCMD: PCMBC_CMD_MSG or PCMBC_CMD_CANCEL. pInfo->ulCMD is not used. A cancel
 * request needs a text too, but any text will do. The service drops every request with an empty text. The
 * record stays the caller's.
 * Returns 1 handed to the sender, whether or not the request arrives; 0 refused: there is no record or no
 * text, or the command is another one. */
int QX_PCCASTMBCCommander(unsigned long ulCMD, MSGInfo *pInfo);

/* Delivers pInfo as a message request with command ulCMD. Returns the same results as TxCASTInfoToPlugIn. A
 * command other than the two above is not sent: the result is that of opening the socket. */
int TxPCMBCInfoToPlugIn(unsigned long ulCMD, const MSGInfo *pInfo);

#ifdef __cplusplus
}
#endif
#endif
