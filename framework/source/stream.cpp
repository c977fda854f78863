// stream.cpp - stored-file streams: a reader of the file's kind, and the clock that its packets are due on.
//
// Called by whoever plays a file, on one thread. A stream owns the file's descriptor and its reader.
#include "asfstream.h"
#include "report.h"
#include "tsstream.h"
#include "yield.h"

#include <qxapi.h>

#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <time.h>
#include <unistd.h>

namespace {

// Packets that follow each other closely are handed out up to so much early or late, two or more at a
// wake-up: the wake-ups are most of what playing costs, and a receiver's buffer does not notice. Nanoseconds.
constexpr long long EARLY_MAX = 1'100'000;
constexpr long long LATE_MAX = 300'000;

struct STREAM : ts_qxapi_stream {
    std::string sFile;
    int iFile = -1;
    std::unique_ptr<ASFREADER> pASF; // one of the two
    std::unique_ptr<TSREADER> pTS;
    bool bStarted = false;
    bool bEnd = false;
    long long llStart = 0;   // CLOCK_MONOTONIC, nanoseconds
    long long llLastDue = 0; // due time of the packet handed out last
    MEDIAPACKET Next{};      // the packet that is due next
    bool bNext = false;
    ts_qxapi_packet Lent{}; // what the caller holds
    bool bLent = false;
};

STREAM *streamOf(ts_qxapi_stream *pStream) {
    return static_cast<STREAM *>(pStream);
}

long long monotonicNow() {
    timespec Now{};
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1'000'000'000LL + Now.tv_nsec;
}

// Has the next packet read, unless it is there or the reader's buffer is lent.
void prepareNext(STREAM &Stream) {
    if (!Stream.bStarted || Stream.bEnd || Stream.bNext || Stream.bLent)
        return;
    const int iStep =
        Stream.pASF ? asfReaderNext(*Stream.pASF, Stream.Next) : tsReaderNext(*Stream.pTS, Stream.Next);
    Stream.bNext = iStep == MEDIA_PACKET;
    Stream.bEnd = iStep == MEDIA_END;
}

int startStream(ts_qxapi_stream *pStream) {
    STREAM &Stream = *streamOf(pStream);
    if (Stream.bStarted) {
        frameworkReport("stream", "%s: started a second time: it plays on", Stream.sFile.c_str());
        return 0;
    }
    try {
        std::string sReason;
        const bool bStarted = Stream.pASF
                                  ? asfReaderStart(*Stream.pASF, Stream.iFile, Stream.sFile.c_str(), sReason)
                                  : tsReaderStart(*Stream.pTS, Stream.iFile, Stream.sFile.c_str(), sReason);
        if (!bStarted) {
            frameworkReport("stream", "%s cannot be played: %s", Stream.sFile.c_str(), sReason.c_str());
            return 0;
        }
    } catch (const std::bad_alloc &) {
        frameworkReport("stream", "%s cannot be played: no memory", Stream.sFile.c_str());
        return 0;
    }
    Stream.bStarted = true;
    prepareNext(Stream); // the first packet, so that reading it does not make it late
    Stream.llStart = monotonicNow();
    return 1;
}

int streamIsAtEnd(ts_qxapi_stream *pStream) {
    STREAM &Stream = *streamOf(pStream);
    prepareNext(Stream);
    return Stream.bEnd || !Stream.bStarted;
}

ts_qxapi_packet *nextPacket(ts_qxapi_stream *pStream) {
    STREAM &Stream = *streamOf(pStream);
    prepareNext(Stream);
    if (Stream.bLent || Stream.bEnd || !Stream.bStarted)
        return nullptr;
    if (!Stream.bNext) {
        yieldSetNextDue(0); // the reader has more to do
        return nullptr;
    }
    const long long llDue = Stream.llStart + Stream.Next.llDue;
    const bool bClose = Stream.Next.llDue - Stream.llLastDue < EARLY_MAX + LATE_MAX;
    if (llDue > monotonicNow() + (bClose ? EARLY_MAX : 0)) {
        yieldSetNextDue(llDue + (bClose ? LATE_MAX : 0));
        return nullptr;
    }
    Stream.llLastDue = Stream.Next.llDue;
    Stream.Lent = {Stream.Next.pData, Stream.Next.uiLength};
    Stream.bNext = false;
    Stream.bLent = true;
    return &Stream.Lent;
}

void releasePacket(ts_qxapi_stream *pStream, ts_qxapi_packet *pPacket) {
    STREAM &Stream = *streamOf(pStream);
    if (pPacket == &Stream.Lent)
        Stream.bLent = false;
}

// Gives the stream the reader for what the file holds. Returns false and the reason when there is none.
bool chooseReader(STREAM &Stream, std::string &sReason) {
    FILEWINDOW Window;
    windowOpen(Window, Stream.iFile, 4096);
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(Window, 0, 16, ulHave);
    if (Window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(Window.iError);
        return false;
    }
    if (ulHave == 0) {
        sReason = "it is empty";
        return false;
    }
    if (asfRecognises(p, ulHave)) {
        Stream.pASF = std::make_unique<ASFREADER>();
        return true;
    }
    if (tsReaderRecognises(Stream.iFile)) {
        Stream.pTS = std::make_unique<TSREADER>();
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
        auto pStream = std::make_unique<STREAM>();
        std::string sReason;
        static_cast<ts_qxapi_stream &>(*pStream) = {startStream, streamIsAtEnd, nextPacket, releasePacket};
        pStream->sFile = pszFile;
        pStream->iFile = fileOpenRegular(pszFile, sReason);
        if (pStream->iFile >= 0 && chooseReader(*pStream, sReason)) {
            posix_fadvise(pStream->iFile, 0, 0, POSIX_FADV_SEQUENTIAL);
            return pStream.release();
        }
        frameworkReport("stream", "%s cannot be played: %s", pszFile, sReason.c_str());
        if (pStream->iFile >= 0)
            close(pStream->iFile);
    } catch (const std::bad_alloc &) {
        frameworkReport("stream", "%s cannot be played: no memory", pszFile);
    }
    return nullptr;
}

void qxapi_close_stream(ts_qxapi_stream *pStream) {
    if (!pStream)
        return;
    STREAM *pOwn = streamOf(pStream);
    close(pOwn->iFile);
    delete pOwn;
}
