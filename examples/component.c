/* component.c - a host component. It has a live stream cast for a minute and a message shown.
 *
 *   component SOURCE-ADDRESS SOURCE-PORT GROUP GROUP-PORT TEXT
 *   component 239.0.0.1 4000 239.1.2.3 5000 "The film begins in ten minutes"
 *
 * The service may run in this process. Here it runs in another process of the same user (pccast serve). Link
 * the component with libpccast.so: pkg-config --cflags --libs pccast, or find_package(pccast) and
 * pccast::pccast in CMake. */
#include <pccast/pccast.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { PROGRAMME = 42, LIFETIME = 60 /* seconds */ };

/* Says why a request has not arrived. Returns whether it has. */
static int report(const char *request, int iSent) {
    if (iSent == 0) {
        fprintf(stderr, "component: the %s request is not complete\n", request);
    } else if (iSent < 0) {
        fprintf(stderr, "component: the %s request was not taken: %s\n", request, strerror(-iSent));
    }
    return iSent > 0;
}

static int submitCast(const char *source, unsigned short usSourcePort, const char *group,
                      unsigned short usGroupPort) {
    CASTInfo *cast = NULL; /* the slot must be empty */
    if (MAKECASTInfo(&cast, source, group, NULL, CAST_TYPE_STREAM) != 1) {
        fprintf(stderr, "component: no cast request could be made\n");
        return 0;
    }
    const unsigned long now = (unsigned long)time(NULL);
    cast->uliEPGID = PROGRAMME;
    cast->ulCT = now; /* newer than all earlier requests, so it goes on air before them */
    cast->ulSTREAMFormat = CAST_FORMAT_TS;
    cast->ulST = now;
    cast->ulET = now + LIFETIME;
    cast->usSRCPort = usSourcePort;
    cast->usDSTPort = usGroupPort;
    cast->ulCMD = CAST_CMD_START;
    /* QX_PCCASTSTREAMCommander() does both, but it does not tell whether the request has arrived. */
    const int iSent = VALIDATECASTInfo(cast) == 1 ? TxCASTInfoToPlugIn(CAST_CMD_START, cast) : 0;
    ELIMINATECASTInfo(&cast); /* the service has its own copy */
    return report("cast", iSent);
}

static int submitMessage(const char *text) {
    MSGInfo *message = NULL;
    if (MAKEMSGInfo(&message, text) != 1) {
        fprintf(stderr, "component: no message request could be made\n");
        return 0;
    }
    const unsigned long now = (unsigned long)time(NULL);
    message->uliEPGID = PROGRAMME;
    message->ulCT = now;
    message->ulST = now;
    message->ulET = now + LIFETIME;
    message->ulRepeat = 1;
    message->ulCMD = PCMBC_CMD_MSG;
    const int iSent = VALIDATEMSGInfo(message) == 1 ? TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, message) : 0;
    ELIMINATEMSGInfo(&message);
    return report("message", iSent);
}

static unsigned short port(const char *text) {
    char *end = NULL;
    errno = 0;
    const unsigned long number = strtoul(text, &end, 10);
    return errno == 0 && *end == '\0' && number <= 65535 ? (unsigned short)number : 0;
}

int main(int argc, char **argv) {
    if (argc != 6 || port(argv[2]) == 0 || port(argv[4]) == 0) {
        fprintf(stderr, "usage: component SOURCE-ADDRESS SOURCE-PORT GROUP GROUP-PORT TEXT\n");
        return 64;
    }
    const int cast = submitCast(argv[1], port(argv[2]), argv[3], port(argv[4]));
    const int message = submitMessage(argv[5]);
    return cast && message ? 0 : 1;
}
