/* plugin.h - the entry points by which a host loads, opens and closes the service.
 *
 * The host calls them one at a time. They take no lock. */
#ifndef PCCAST_PLUGIN_H
#define PCCAST_PLUGIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* Twelve entries: the names of the two exported commanders, nine empty texts, null. */
extern const char *const QX_PlugIn_Map[12];

/* The names of the two exported commanders, then null. */
extern const char *const p_qxapi_name_table_pccast[3];

/* Returns "PCCAST Plugin". */
const char *QX_PlugIn_Name(void);

/* Returns 0x03060502. */
unsigned int QX_PlugIn_Version(void);

/* Opens the service: starts its threads and returns when the supervisor runs. The two sockets of commander.h
 * appear some tens of milliseconds later. A request submitted before that is lost.
 * Returns 1, also after a failure; a failure is printed. */
int QX_PlugIn_Open(void);

/* Stops the service and returns when the supervisor has ended. Waits about 100 seconds for a thread that
 * hangs. Then it prints the thread's name and leaves the thread everything that it can reach. Returns 1. */
int QX_PlugIn_Close(void);

/* Does nothing. */
void QX_Dummy(void);

/* Does the same as QX_PlugIn_Open. Returns 1. */
int p_qxapi_open_pccast(void);

/* The host's plug-in arguments. The host framework defines them. */
struct ts_qxapi_plugin_argument;

/* Passes pArguments (may be null) to the framework, then does the same as QX_PlugIn_Close. Returns 1. */
int p_qxapi_close_pccast(const struct ts_qxapi_plugin_argument *pArguments);

/* Returns QX_PlugIn_Version() for iRequest 0, and 1 for any other request. pHandle is ignored. */
int p_qxapi_control_pccast(void *pHandle, int iRequest);

/* Prints the signal's number on standard output and returns. Async-signal-safe. */
void pccastSignalHandler(int iSignal);

#ifdef __cplusplus
}
#endif
#endif
