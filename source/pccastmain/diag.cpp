// The diagnostic driver. Runs on the thread of its caller, and owns the records that it submits.
#include "diag.h"

#include <pccast/pccast.h>

#include "debuglog.h"
#include "pccastmain.h"

#include <vexa_pgl.h>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// SIGTERM only prints a line. So it must not shorten a pause.
void sleepThrough(unsigned int uiSeconds) {
    const unsigned long ulEnd = vexa_time(nullptr) + uiSeconds;
    for (unsigned long ulNow = ulEnd - uiSeconds; ulNow < ulEnd; ulNow = vexa_time(nullptr)) {
        sleep(static_cast<unsigned int>(ulEnd - ulNow));
    }
}

// The receivers start to listen a moment after the plug-in is open. A request sent before that is lost.
void waitForReceivers() {
    constexpr int kPasses = 300;
    for (int i = 0; i < kPasses; ++i) {
        if (access(PCCAST_CAST_SOCKET, F_OK) == 0 && access(PCCAST_MESSAGE_SOCKET, F_OK) == 0) {
            return;
        }
        vexa_load_balance();
    }
}

std::string sampleFile(const char *pName) {
    const char *pFolder = std::getenv("PCCAST_SAMPLES");
    return std::string(pFolder != nullptr ? pFolder : "/usr/share/pccast/samples") + "/" + pName;
}

void installSignalHandler() {
    struct sigaction previous {};
    if (sigaction(SIGTERM, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = pccastSignalHandler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
}

// One step of the message series. A step without a text sends the record of an earlier step again.
struct MessageStep {
    unsigned long ulCMD;
    int iRecord;
    unsigned long ulPriority;
    unsigned long ulLifetime; // seconds until the end time
    unsigned long ulRepeat;
    const char *pText;
    unsigned int uiPause; // seconds after the step
};
constexpr const char *kTextA = "H-------I--------G---------H----------A";
constexpr const char *kTextB = "H-------I--------G---------H----------B";
constexpr MessageStep kSteps[] = {
    {PCMBC_CMD_MSG, 0, 1, 10, 200, kTextA, 5},
    {PCMBC_CMD_MSG, 0, 1, 10, 2, kTextB, 10},
    {PCMBC_CMD_CANCEL, 0, 0, 0, 0, nullptr, 0},
    {PCMBC_CMD_MSG, 0, 0, 100, 200, "1234567890123456789012345678901234567890", 20},
    {PCMBC_CMD_MSG, 1, 0, 300, 5, "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 10},
    {PCMBC_CMD_MSG, 0, 1, 20, 3, kTextA, 70},
};
constexpr unsigned long kEPGID[] = {1, 0}; // of the two records

void sendMessages() {
    MSGInfo *records[] = {nullptr, nullptr};
    for (const MessageStep &step : kSteps) {
        MSGInfo *&pInfo = records[step.iRecord];
        if (step.pText != nullptr) {
            ELIMINATEMSGInfo(&pInfo);
            if (MAKEMSGInfo(&pInfo, step.pText) != 1) {
                continue;
            }
            const unsigned long ulNow = vexa_time(nullptr);
            pInfo->uliEPGID = kEPGID[step.iRecord];
            pInfo->ulAttr3 = 33333;
            pInfo->ulAttr1 = 32;
            pInfo->ulPriority = step.ulPriority;
            pInfo->ulCT = pInfo->ulST = ulNow;
            pInfo->ulET = ulNow + step.ulLifetime;
            pInfo->ulRepeat = step.ulRepeat;
        }
        QX_PCCASTMBCCommander(step.ulCMD, pInfo);
        sleepThrough(step.uiPause);
    }
    for (MSGInfo *&pInfo : records) {
        ELIMINATEMSGInfo(&pInfo);
    }
}

// The format stays 0, an unknown format. So the cast is announced, and no file is played.
void fillRequest(CASTInfo *pInfo) {
    pInfo->ulCMD = CAST_CMD_START;
    pInfo->ulCT = 100;
    pInfo->usDSTPort = 13133;
    pInfo->ulST = vexa_time(nullptr);
    pInfo->ulET = pInfo->ulST + 200;
}

} // namespace

int diagPCCASTMain(void) {
    initDebug("PCCAST", nullptr);
    PCCAST_DEBUG(1, "%s[%d] : FileName = %s\n", "diagPCCASTMain", __LINE__, "aaaaaaaaaa");
    installSignalHandler();
    QX_PlugIn_Open();
    waitForReceivers();

    CASTInfo *pCastA = nullptr;
    if (MAKECASTInfo(&pCastA, "224.1.1.1", "224.13.13.13", sampleFile("CASTFILE.asf").c_str(),
                     CAST_TYPE_FILE) == 1) {
        fillRequest(pCastA);
        pCastA->ulMSID = 34742;
    }
    // The second record is a relay. It is not sent: this only tries out how a relay is made.
    CASTInfo *pCastB = nullptr;
    const int iResult = MAKECASTInfo(&pCastB, "224.1.1.1", "224.2.2.2", sampleFile("CASTFILE2.asf").c_str(),
                                     CAST_TYPE_STREAM);
    if (iResult == 1) {
        fillRequest(pCastB);
        pCastB->usSRCPort = 9100;
    }
    QX_PCCASTSTREAMCommander(CAST_CMD_START, pCastA);
    sleepThrough(15);
    sleepThrough(200);

    sendMessages();

    ELIMINATECASTInfo(&pCastB);
    ELIMINATECASTInfo(&pCastA);
    QX_PlugIn_Close();
    return iResult;
}
