// diag.h - the diagnostic driver: runs the whole plug-in with built-in requests.
//
// The program diagpccast calls it on its main thread.
#ifndef PCCAST_DIAG_H
#define PCCAST_DIAG_H

extern "C" {

// Opens the plug-in, submits one file cast and a series of messages, waits until they are over, and closes
// the plug-in. This takes 330 seconds. The cast has no format: it is announced for 200 seconds, and no file
// is played. The records name the sample files CASTFILE.asf and CASTFILE2.asf. Their folder is the value of
// the environment variable PCCAST_SAMPLES, or the folder of the installed samples.
// Returns the result of making the second cast record.
int diagPCCASTMain(void);
}

#endif
