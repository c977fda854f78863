// diag.h - the diagnostic driver: runs the whole plug-in in its own process with built-in requests.
#ifndef PCCAST_DIAG_H
#define PCCAST_DIAG_H

extern "C" {

// Opens the plug-in, submits one file cast and a sequence of messages, waits for them to be over (330 seconds
// in all), and closes it. The cast names no format: it is announced for 200 seconds, and nothing is played.
// The two sample files that the records name are CASTFILE.asf and CASTFILE2.asf in the folder that the
// environment variable PCCAST_SAMPLES names, else in that of the installed samples. Returns the result of
// making the second cast sample.
int diagPCCASTMain(void);
}

#endif
