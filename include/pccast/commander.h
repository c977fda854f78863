/* commander.h - the two calls by which a component hands requests to the running service.
 *
 * Both run in the caller's thread, may be called from several threads at once, and deliver over a local
 * socket of their own: to this process or to another one of the same user. */
#ifndef PCCAST_COMMANDER_H
#define PCCAST_COMMANDER_H

#include <pccast/castinfo.h>
#include <pccast/msginfo.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where the service listens for requests. */
#define PCCAST_CAST_SOCKET "/tmp/PCSTREAM.uds"
#define PCCAST_MESSAGE_SOCKET "/tmp/PCMBC.uds"

/* Submits a cast request. ulCMD: CAST_CMD_START, _STOP or _END; it is written into pInfo->ulCMD, also when
 * the request is then refused. The record stays the caller's. Returns 1 the request was handed to the sender,
 * whether or not it then arrived; 0 refused: no record, an incomplete one (printed), or another command. */
int QX_PCCASTSTREAMCommander(unsigned long ulCMD, CASTInfo *pInfo);

/* Delivers pInfo as a cast request with command ulCMD. Returns the result of the network's last step:
 * positive when the request was sent, 0 or negative when a step refused; -1 also when the service is switched
 * off or there is no record. When memory runs out for the request nothing is sent, and the result is that of
 * the step before. */
int TxCASTInfoToPlugIn(unsigned long ulCMD, const CASTInfo *pInfo);

/* Submits a message request. ulCMD: PCMBC_CMD_MSG or PCMBC_CMD_CANCEL; pInfo->ulCMD is not used. A cancel
 * request needs a text too, whatever it says; the receiver drops a request of either command with an empty
 * one. The record stays the caller's. Returns 1 the request was handed to the sender, whether or not it then
 * arrived; 0 refused: no record, no text, or another command. */
int QX_PCCASTMBCCommander(unsigned long ulCMD, MSGInfo *pInfo);

/* Delivers pInfo as a message request with command ulCMD. Results as for TxCASTInfoToPlugIn; a command that
 * is none of messages is not sent, and the result is that of the step before. */
int TxPCMBCInfoToPlugIn(unsigned long ulCMD, const MSGInfo *pInfo);

#ifdef __cplusplus
}
#endif
#endif
