// The settings of every endpoint, and the openers that apply them.
#include "ktnet.h"

#include <pccast/commander.h>

#include "consoletext.h"
#include "wire.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

// The layout of the library's records. The system relies on it.
static_assert(offsetof(KTNET_ENDPOINT, uiKind) == 12 && offsetof(KTNET_ENDPOINT, iSocket) == 16);
static_assert(offsetof(KTNET_ENDPOINT, szPeer) == 20 && sizeof(KTNET_ENDPOINT::szPeer) == 128);
static_assert(offsetof(KTNET_ENDPOINT, szLocal) == 148 && sizeof(KTNET_ENDPOINT::szLocal) == 128);
static_assert(offsetof(KTNET_ENDPOINT, uiPort) == 276 && offsetof(KTNET_ENDPOINT, uiListen) == 280);
static_assert(offsetof(KTNET_ENDPOINT, uiAux) == 284 && offsetof(KTNET_ENDPOINT, uiTimeoutMs) == 288);
static_assert(offsetof(KTNET_ENDPOINT, uiError) == 296);
static_assert(sizeof(KTNET_PACKET) == 72);
static_assert(offsetof(KTNET_PACKET, uiIdent) == 0 && offsetof(KTNET_PACKET, uiService) == 4);
static_assert(offsetof(KTNET_PACKET, uiCommand) == 8 && offsetof(KTNET_PACKET, uiParam) == 12);
static_assert(offsetof(KTNET_PACKET, ulPayloadLen) == 16 && offsetof(KTNET_PACKET, ulReserved) == 24);
static_assert(offsetof(KTNET_PACKET, pPayload) == 40 && offsetof(KTNET_PACKET, ulPayloadSize) == 48);
static_assert(offsetof(KTNET_PACKET, uiStatus) == 56);
static_assert(offsetof(KTNET_BUFFER, pBuffer) == 0 && offsetof(KTNET_BUFFER, ulBufferLen) == 8);

namespace {

constexpr int kHops = 5; // the same for all, so that streams and messages reach as far as announcements
constexpr int kVersion = 2;
constexpr int kDefault = -1; // leave the field at the library's default

// The settings of an endpoint. A row without an address or a port takes the opener's.
struct KTNET_SETTING {
    KTNET_USE eUse;
    unsigned int uiKind;
    const char *pszPeer;
    const char *pszLocal;
    int iPort;
    unsigned int uiListen;
    int iAux;
    int iTimeoutMs;
    bool bClearError;
    int iMode;
};

constexpr const char *kCasts = PCCAST_CAST_SOCKET;
constexpr const char *kMessages = PCCAST_MESSAGE_SOCKET;
constexpr int kAnnounced = wire::announcement::kPort;
constexpr int kBroadcast = wire::broadcast::kPort;

constexpr KTNET_SETTING kSettings[] = {
    // clang-format off
    //  use                    kind              peer          local      port        listen aux       timeout   clear  mode
    {KTNET_CAST_RECEIVER,    KTNET_KIND_LOCAL, nullptr,      kCasts,    kDefault,   1,     0,        2000,     true,  0},
    {KTNET_MESSAGE_RECEIVER, KTNET_KIND_LOCAL, nullptr,      kMessages, kDefault,   1,     0,        500,      true,  0},
    {KTNET_CAST_SENDER,      KTNET_KIND_LOCAL, kCasts,       nullptr,   0,          0,     0,        1000,     true,  0},
    {KTNET_MESSAGE_SENDER,   KTNET_KIND_LOCAL, kMessages,    nullptr,   0,          0,     0,        1000,     true,  0},
    {KTNET_ANNOUNCEMENT,     KTNET_KIND_UDP,   wire::kGroup, nullptr,   kAnnounced, 0,     kDefault, kDefault, true,  0},
    {KTNET_BROADCAST,        KTNET_KIND_UDP,   wire::kGroup, nullptr,   kBroadcast, 0,     kDefault, kDefault, false, 1},
    {KTNET_STREAM_RECEIVER,  KTNET_KIND_UDP,   nullptr,      nullptr,   kDefault,   1,     kDefault, 1000,     true,  0},
    {KTNET_STREAM_SENDER,    KTNET_KIND_UDP,   nullptr,      nullptr,   kDefault,   0,     0,        1000,     true,  0},
    // clang-format on
};

const KTNET_SETTING *settingOf(KTNET_USE eUse, unsigned int uiKind, unsigned int uiListen) {
    for (const KTNET_SETTING &setting : kSettings) {
        if (setting.eUse == eUse && setting.uiKind == uiKind && setting.uiListen == uiListen) {
            return &setting;
        }
    }
    return nullptr;
}

// Returns whether the text fits the field.
bool setAddress(char (&szField)[KTNET_ADDRESS_SIZE], const char *pszText) {
    if (pszText == nullptr) {
        return true;
    }
    const size_t ulLength = std::strlen(pszText);
    if (ulLength >= sizeof szField) {
        std::printf("[%s:%d] \e[2;31m address of %zu characters, %zu fit: %.32s... \e[1;41m[ERROR]\e[0m\n",
                    "ktnet", __LINE__, ulLength, sizeof szField - 1,
                    orQuestion(consoleText(pszText, "NULL")));
        return false;
    }
    std::memcpy(szField, pszText, ulLength + 1);
    return true;
}

bool configure(KTNET_ENDPOINT *pDesc, const KTNET_SETTING &setting, const char *pszPeer,
               unsigned short usPort, const char *pszLocal) {
    if (!setAddress(pDesc->szPeer, pszPeer != nullptr ? pszPeer : setting.pszPeer) ||
        !setAddress(pDesc->szLocal, pszLocal != nullptr ? pszLocal : setting.pszLocal)) {
        return false;
    }
    pDesc->uiKind = setting.uiKind;
    pDesc->uiListen = setting.uiListen;
    if (setting.iPort != kDefault) {
        pDesc->uiPort = static_cast<unsigned int>(setting.iPort);
    } else if (setting.uiKind == KTNET_KIND_UDP) {
        pDesc->uiPort = usPort;
    }
    if (setting.iAux != kDefault) {
        pDesc->uiAux = static_cast<unsigned int>(setting.iAux);
    }
    if (setting.iTimeoutMs != kDefault) {
        pDesc->uiTimeoutMs = static_cast<unsigned int>(setting.iTimeoutMs);
    }
    if (setting.bClearError) {
        pDesc->uiError = 0;
    }
    return true;
}

// pInitialised: called after the library's initialisation, before the next step; may be null.
int open(KTNET_ENDPOINT **ppDesc, const KTNET_SETTING *pSetting, const char *pszPeer, unsigned short usPort,
         const char *pszLocal, KTNET_STEP *peStep, void (*pInitialised)() = nullptr) {
    KTNET_STEP eStep = KTNET_STEP_INIT;
    KTNET_STEP &step = peStep != nullptr ? *peStep : eStep;
    step = KTNET_STEP_INIT;
    *ppDesc = nullptr;
    if (pSetting == nullptr) {
        return -1;
    }
    const int iInit = ktn_xapi_ktnet_init_with_version(ppDesc, pSetting->iMode, kVersion);
    // A 0 with a descriptor is good enough for a local endpoint. For a UDP endpoint 0 is a failure.
    const bool bFailed = pSetting->uiKind == KTNET_KIND_LOCAL ? iInit < 0 : iInit <= 0;
    if (bFailed) {
        return iInit;
    }
    if (*ppDesc == nullptr) {
        return pSetting->uiKind == KTNET_KIND_LOCAL ? iInit : -1;
    }
    if (pInitialised != nullptr) {
        pInitialised();
    }
    step = KTNET_STEP_CONFIGURE;
    if (!configure(*ppDesc, *pSetting, pszPeer, usPort, pszLocal)) {
        return -1;
    }
    step = KTNET_STEP_CREATE;
    return ktn_xapi_ktnet_create(*ppDesc);
}

} // namespace

int KTNETOpenServer(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep) {
    return open(ppDesc, settingOf(eUse, KTNET_KIND_LOCAL, 1), nullptr, 0, nullptr, peStep);
}

int KTNETOpenClient(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep) {
    return open(ppDesc, settingOf(eUse, KTNET_KIND_LOCAL, 0), nullptr, 0, nullptr, peStep);
}

int KTNETOpenSender(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                    const char *pszLocal, KTNET_STEP *peStep) {
    const int iResult = open(ppDesc, settingOf(eUse, KTNET_KIND_UDP, 0), pszPeer, usPort, pszLocal, peStep);
    if (iResult > 0) {
        ktn_xapi_hops_socket(0, (*ppDesc)->iSocket, kHops, 1);
    }
    return iResult;
}

int KTNETOpenReceiver(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                      const char *pszLocal, KTNET_STEP *peStep, void (*pInitialised)()) {
    return open(ppDesc, settingOf(eUse, KTNET_KIND_UDP, 1), pszPeer, usPort, pszLocal, peStep, pInitialised);
}

void KTNETClose(KTNET_ENDPOINT **ppDesc) {
    if (*ppDesc == nullptr) {
        return;
    }
    ktn_xapi_ktnet_close(*ppDesc);
    ktn_xapi_ktnet_delete(ppDesc);
    *ppDesc = nullptr;
}
