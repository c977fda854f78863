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
#include <time.h>

enum { PROGRAMME = 42, LIFETIME = 60 /* seconds */ };

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
    /* 1 means that it was handed over. TxCASTInfoToPlugIn() also tells whether it arrived. */
    const int iHandedOver = QX_PCCASTSTREAMCommander(CAST_CMD_START, cast);
    ELIMINATECASTInfo(&cast); /* the service has its own copy */
    if (iHandedOver != 1) {
        fprintf(stderr, "component: the cast request was refused\n");
    }
    return iHandedOver == 1;
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
    const int iHandedOver = QX_PCCASTMBCCommander(PCMBC_CMD_MSG, message);
    ELIMINATEMSGInfo(&message);
    if (iHandedOver != 1) {
        fprintf(stderr, "component: the message request was refused\n");
    }
    return iHandedOver == 1;
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
