// stream.cpp - stored-file streams: chooses the reader for a file, and hands its packets out when they are
// due.
//
// Called by the player of a file, on one thread. A stream owns the file's descriptor and its reader.
#include "asfstream.h"
#include "report.h"
#include "tsstream.h"
#include "yield.h"

#include <qxapi.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr long long kLate = 10'000'000; // a packet handed out so much after its time counts as late
constexpr unsigned long long kSendTimeMax = 1ULL << 50; // units of 100 ns: about three years
constexpr unsigned long kSlackLeast = 1;                // nanoseconds

struct FileStream : ts_qxapi_stream {
    std::string sFile;
    int iFile = -1;
    std::unique_ptr<AsfReader> pASF; // one of these two is set
    std::unique_ptr<TsReader> pTS;
    bool bStarted = false;
    bool bEnd = false;
    long long llStart = 0; // CLOCK_MONOTONIC time of pStart, nanoseconds
    MediaPacket next{};    // the packet that is due next, if bNext
    bool bNext = false;
    ts_qxapi_packet lent{}; // the packet that the caller holds, if bLent
    bool bLent = false;
    long long llLastDue = 0; // due time of the packet handed out last
    long long llLength = 0;  // play-out time of the file, nanoseconds; 0 not known
    unsigned long ulLate = 0;
    pid_t iPlayer = 0;         // the thread that started the stream, if its timer slack was changed
    unsigned long ulSlack = 0; // the slack before, nanoseconds
};

FileStream *streamOf(ts_qxapi_stream *pStream) {
    return static_cast<FileStream *>(pStream);
}

long long monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

// Reads the next packet, unless it has been read or the caller still holds the reader's buffer.
void prepareNext(FileStream &stream) {
    if (!stream.bStarted || stream.bEnd || stream.bNext || stream.bLent) {
        return;
    }
    const int iStep =
        stream.pASF ? asfReaderNext(*stream.pASF, stream.next) : tsReaderNext(*stream.pTS, stream.next);
    stream.bNext = iStep == MEDIA_PACKET;
    stream.bEnd = iStep == MEDIA_END;
}

// Lets the calling thread wake up exactly. By default the system may wake it 50 us after the time, to serve
// several threads at once.
void sharpenTimer(FileStream &stream) {
    const int iSlack = prctl(PR_GET_TIMERSLACK);
    if (iSlack > 0 && prctl(PR_SET_TIMERSLACK, kSlackLeast) == 0) {
        stream.iPlayer = gettid();
        stream.ulSlack = static_cast<unsigned long>(iSlack);
    }
}

void relaxTimer(const FileStream &stream) {
    if (stream.iPlayer == gettid()) {
        prctl(PR_SET_TIMERSLACK, stream.ulSlack);
    }
}

int startStream(ts_qxapi_stream *pStream) {
    FileStream &stream = *streamOf(pStream);
    if (stream.bStarted) {
        frameworkReport("stream", "%s: started a second time: it plays on", stream.sFile.c_str());
        return 0;
    }
    try {
        std::string sReason;
        const bool bStarted = stream.pASF
                                  ? asfReaderStart(*stream.pASF, stream.iFile, stream.sFile.c_str(), sReason)
                                  : tsReaderStart(*stream.pTS, stream.iFile, stream.sFile.c_str(), sReason);
        if (!bStarted) {
            frameworkReport("stream", "%s cannot be played: %s", stream.sFile.c_str(), sReason.c_str());
            return 0;
        }
    } catch (const std::bad_alloc &) {
        frameworkReport("stream", "%s cannot be played: no memory", stream.sFile.c_str());
        return 0;
    }
    stream.llLength =
        stream.pASF ? static_cast<long long>(std::min(stream.pASF->header.ullSendTime, kSendTimeMax)) * 100
                    : stream.pTS->llLength;
    stream.bStarted = true;
    sharpenTimer(stream);
    prepareNext(stream); // read the first packet before the clock starts, so that it is not late
    stream.llStart = monotonicNow();
    return 1;
}

int streamIsAtEnd(ts_qxapi_stream *pStream) {
    FileStream &stream = *streamOf(pStream);
    prepareNext(stream);
    return stream.bEnd || !stream.bStarted;
}

ts_qxapi_packet *nextPacket(ts_qxapi_stream *pStream) {
    FileStream &stream = *streamOf(pStream);
    prepareNext(stream);
    if (stream.bLent || stream.bEnd || !stream.bStarted) {
        return nullptr;
    }
    const long long llNow = monotonicNow();
    if (!stream.bNext) {
        yieldSetNextDue(llNow, llNow); // the reader has more to do: do not sleep
        return nullptr;
    }
    const long long llDue = stream.llStart + stream.next.llDue;
    if (llDue > llNow) {
        yieldSetNextDue(llDue, llNow);
        return nullptr;
    }
    stream.ulLate += llNow - llDue > kLate;
    stream.llLastDue = stream.next.llDue;
    stream.lent = {stream.next.pData, stream.next.uiLength};
    stream.bNext = false;
    stream.bLent = true;
    return &stream.lent;
}

void releasePacket(ts_qxapi_stream *pStream, ts_qxapi_packet *pPacket) {
    FileStream &stream = *streamOf(pStream);
    if (pPacket == &stream.lent) {
        stream.bLent = false;
    }
}

// Chooses the reader by the file's content. Returns false and the reason if no reader fits.
bool chooseReader(FileStream &stream, std::string &sReason) {
    FileWindow window;
    windowOpen(window, stream.iFile, 4096);
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(window, 0, 16, ulHave);
    if (window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(window.iError);
        return false;
    }
    if (ulHave == 0) {
        sReason = "it is empty";
        return false;
    }
    if (asfRecognises(p, ulHave)) {
        stream.pASF = std::make_unique<AsfReader>();
        return true;
    }
    if (tsReaderRecognises(stream.iFile)) {
        stream.pTS = std::make_unique<TsReader>();
        return true;
    }
    sReason = "it is neither an ASF file nor an MPEG transport stream";
    return false;
}

} // namespace

ts_qxapi_stream *qxapi_open_stream(const char *pszFile) {
    if (!pszFile || !*pszFile) {
        frameworkReport("stream", "no file is named");
        return nullptr;
    }
    try {
        auto pStream = std::make_unique<FileStream>();
        std::string sReason;
        static_cast<ts_qxapi_stream &>(*pStream) = {startStream, streamIsAtEnd, nextPacket, releasePacket};
        pStream->sFile = pszFile;
        pStream->iFile = fileOpenRegular(pszFile, sReason);
        if (pStream->iFile >= 0 && chooseReader(*pStream, sReason)) {
            posix_fadvise(pStream->iFile, 0, 0, POSIX_FADV_SEQUENTIAL);
            return pStream.release();
        }
        frameworkReport("stream", "%s cannot be played: %s", pszFile, sReason.c_str());
        if (pStream->iFile >= 0) {
            close(pStream->iFile);
        }
    } catch (const std::bad_alloc &) {
        frameworkReport("stream", "%s cannot be played: no memory", pszFile);
    }
    return nullptr;
}

int qxapi_stream_progress(const ts_qxapi_stream *pStream, ts_qxapi_stream_progress *pProgress) {
    constexpr long long kMillisecond = 1'000'000;
    const FileStream *pOwn = static_cast<const FileStream *>(pStream);
    if (!pOwn || !pOwn->bStarted) {
        return 0;
    }
    *pProgress = {static_cast<unsigned long>(pOwn->llLastDue / kMillisecond),
                  static_cast<unsigned long>(pOwn->llLength / kMillisecond), pOwn->ulLate};
    return 1;
}

void qxapi_close_stream(ts_qxapi_stream *pStream) {
    if (!pStream) {
        return;
    }
    FileStream *pOwn = streamOf(pStream);
    relaxTimer(*pOwn);
    close(pOwn->iFile);
    delete pOwn;
}
