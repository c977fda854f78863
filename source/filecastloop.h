// filecastloop.h - what the two file cast drivers have in common: the loop from stream to caster, and the
// times and texts of the log record.
#ifndef PCCAST_FILECASTLOOP_H
#define PCCAST_FILECASTLOOP_H

#include "engines.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <ctime>
#include <memory>

struct CloseStream {
    void operator()(ts_qxapi_stream *pStream) const { qxapi_close_stream(pStream); }
};
using Stream = std::unique_ptr<ts_qxapi_stream, CloseStream>;

inline tm filecastNow() {
    unsigned long ulSeconds = 0;
    tm local{};
    qxapi_time_ex2(&ulSeconds, nullptr);
    qxapi_local_time(ulSeconds, &local);
    return local;
}

// Opens and starts the stream. Returns it, or null after a report in the driver's name.
inline Stream filecastOpen(const char *pszFile, const char *pModule, const char *pDriver,
                           int iLine = __builtin_LINE()) {
    Stream pStream(qxapi_open_stream(pszFile));
    if (pStream == nullptr) {
        qxapi_assert_gateway(0, pModule, pDriver, iLine, "s_stream != ((struct ts_qxapi_stream *)0)");
        return nullptr;
    }
    if (pStream->pStart(pStream.get()) != 1) {
        qxapi_assert_gateway(0, pModule, pDriver, iLine, "can not start stream");
        return nullptr;
    }
    return pStream;
}

// Hands each packet that falls due to send, which returns 1 to go on. Returns 1, or what send returned last.
template <typename Send>
int filecastPlay(ts_qxapi_stream *pStream, const KTPLUGIN_INFO_TAG *pBlock, Send send) {
    int iResult = 1;
    do {
        if (pStream->pIsAtEnd(pStream) != 0) {
            return 1;
        }
        ts_qxapi_packet *pPacket = pStream->pNextPacket(pStream);
        if (pPacket == nullptr) {
            qxapi_load_balance();
        } else {
            iResult = send(pPacket);
            pStream->pReleasePacket(pStream, pPacket);
        }
    } while (vexa_get_global_break() == 0 && iResult == 1 && pBlock->eState <= ENGINE_RUNNING);
    return iResult;
}

// Writes the playout's record to the host's log.
// pszNSC: the station file that the playout went by; null leaves it out.
inline void filecastLog(const tm &start, const tm &end, const CASTInfo *pInfo, const char *pszNSC) {
    qxapi_log_printf(
        "play",
        "ST=%04d%02d%02d%02d%02d%02d,ET=%04d%02d%02d%02d%02d%02d,TYPE=%s,IEPGID=0x%08lX,FILE=\"%s\","
        "SRC=\"%s:%u\",DST=\"%s:%u\"%s%s%s\n",
        start.tm_year + 1900, start.tm_mon + 1, start.tm_mday, start.tm_hour, start.tm_min, start.tm_sec,
        end.tm_year + 1900, end.tm_mon + 1, end.tm_mday, end.tm_hour, end.tm_min, end.tm_sec, "ASF@FILECAST",
        pInfo->uliEPGID, qxapi_check_string_ex(pInfo->pCASTFile, "NULL"),
        qxapi_check_string_ex(pInfo->pSRCIP, "0.0.0.0"), static_cast<unsigned int>(pInfo->usSRCPort),
        qxapi_check_string_ex(pInfo->pDSTIP, "0.0.0.0"), static_cast<unsigned int>(pInfo->usDSTPort),
        pszNSC == nullptr ? "" : ",NSC=\"", pszNSC == nullptr ? "" : pszNSC, pszNSC == nullptr ? "" : "\"");
}

#endif
