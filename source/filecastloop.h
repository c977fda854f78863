// filecastloop.h - what the two file cast drivers have in common: the loop from stream to caster, and the log
// record.
//
// Only the drivers include it. Everything runs on the recast thread.
#ifndef PCCAST_FILECASTLOOP_H
#define PCCAST_FILECASTLOOP_H

#include "consoletext.h"
#include "engines.h"
#include "view.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <ctime>
#include <memory>

// A stream that closes at the end of its scope.
// Weak: a host's framework may not tell how far a stream has come.
extern "C" __attribute__((weak)) int qxapi_stream_progress(const ts_qxapi_stream *pStream,
                                                           ts_qxapi_stream_progress *pProgress);

struct CloseStream {
    void operator()(ts_qxapi_stream *pStream) const { qxapi_close_stream(pStream); }
};
using Stream = std::unique_ptr<ts_qxapi_stream, CloseStream>;

// The local calendar time, by the host's clock.
inline tm filecastNow() {
    unsigned long ulSeconds = 0;
    unsigned long ulMicroseconds = 0;
    tm local{};
    qxapi_time_ex2(&ulSeconds, &ulMicroseconds);
    qxapi_local_time(ulSeconds, &local);
    return local;
}

// Opens and starts the stream. Returns the stream. A failure is reported with the driver's name, and null is
// returned.
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

// Counts one attempt to send a packet, and how far the playout has come.
inline void noteSent(const ts_qxapi_stream *pStream, unsigned int uiLength, bool bSent) {
    ViewTraffic &traffic = gViewTraffic[VIEW_RECAST];
    viewAdd(bSent ? traffic.ulDatagrams : traffic.ulFailed, 1);
    viewAdd(traffic.ulBytes, bSent ? uiLength : 0);
    ts_qxapi_stream_progress progress{};
    if (qxapi_stream_progress != nullptr && qxapi_stream_progress(pStream, &progress) == 1) {
        viewSet(traffic.ulPositionMs, progress.ulPositionMs);
        viewSet(traffic.ulLengthMs, progress.ulLengthMs);
        viewSet(traffic.ulLate, progress.ulLate);
    }
}

// Calls send(packet) for each packet when it is due. send returns 1 to go on. Returns 1, or the result of
// send that ended the loop.
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
            noteSent(pStream, pPacket->uiLength, iResult == 1);
            pStream->pReleasePacket(pStream, pPacket);
        }
    } while (vexa_get_global_break() == 0 && iResult == 1 && pBlock->eState <= ENGINE_RUNNING);
    return iResult;
}

// Writes the record of the cast to the host's log. start, end: when the file was played.
// pszNSC: path of the station file; null: the record names none.
inline void filecastLog(const tm &start, const tm &end, const CASTInfo *pInfo, const char *pszNSC) {
    qxapi_log_printf(
        "play",
        "ST=%04d%02d%02d%02d%02d%02d,ET=%04d%02d%02d%02d%02d%02d,TYPE=%s,IEPGID=0x%08lX,FILE=\"%s\","
        "SRC=\"%s:%u\",DST=\"%s:%u\"%s%s%s\n",
        start.tm_year + 1900, start.tm_mon + 1, start.tm_mday, start.tm_hour, start.tm_min, start.tm_sec,
        end.tm_year + 1900, end.tm_mon + 1, end.tm_mday, end.tm_hour, end.tm_min, end.tm_sec, "ASF@FILECAST",
        pInfo->uliEPGID, orQuestion(consoleText(pInfo->pCASTFile, "NULL")),
        orQuestion(consoleText(pInfo->pSRCIP, "0.0.0.0")), static_cast<unsigned int>(pInfo->usSRCPort),
        orQuestion(consoleText(pInfo->pDSTIP, "0.0.0.0")), static_cast<unsigned int>(pInfo->usDSTPort),
        pszNSC == nullptr ? "" : ",NSC=\"", pszNSC == nullptr ? "" : pszNSC, pszNSC == nullptr ? "" : "\"");
}

#endif
