#include "consolepump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

namespace {

constexpr size_t kQueueBytes = 262144;
constexpr size_t kPartBytes = 4096; // a line without an end goes on in parts of this size
constexpr size_t kWriteBytes = 4096;
constexpr std::chrono::seconds kLastWait{2};

// Takes the escape sequences out: ESC [ up to its last byte, else ESC and the byte behind it.
std::string withoutEscapes(std::string_view sText) {
    std::string sPlain;
    for (size_t i = 0; i < sText.size(); ++i) {
        if (sText[i] != '\033') {
            sPlain += sText[i];
            continue;
        }
        ++i;
        if (i < sText.size() && sText[i] == '[') {
            do {
                ++i;
            } while (i < sText.size() && (sText[i] < '@' || sText[i] > '~'));
        }
    }
    return sPlain;
}

bool isSameFile(int iOne, int iOther) {
    struct stat one {};
    struct stat other {};
    return fstat(iOne, &one) == 0 && fstat(iOther, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

} // namespace

bool isScreen(int iFile) {
    const char *const pszTerminal = std::getenv("TERM");
    return isatty(iFile) == 1 && pszTerminal != nullptr && *pszTerminal != 0 &&
           std::string_view(pszTerminal) != "dumb";
}

bool isColourful(int iFile) {
    const char *const pszNoColour = std::getenv("NO_COLOR");
    return isScreen(iFile) && (pszNoColour == nullptr || *pszNoColour == 0);
}

void ConsoleQueue::put(std::string_view sBytes) {
    while (!sBytes.empty()) {
        const size_t uEnd = sBytes.find('\n');
        const size_t uTake = uEnd == std::string_view::npos ? sBytes.size() : uEnd + 1;
        sPart += sBytes.substr(0, uTake);
        sBytes.remove_prefix(uTake);
        if (uEnd != std::string_view::npos || sPart.size() >= kPartBytes) {
            enqueue(std::exchange(sPart, {}));
        }
    }
}

void ConsoleQueue::finish() {
    if (!sPart.empty()) {
        enqueue(std::exchange(sPart, {}));
    }
}

std::string ConsoleQueue::take(size_t uMost) {
    std::string sPiece = sQueue.substr(0, uMost);
    sQueue.erase(0, sPiece.size());
    if (ulDropped != 0 && sQueue.size() <= uLimit / 2) {
        sQueue +=
            "pccast: lines dropped here because nobody read them in time: " + std::to_string(ulDropped) +
            "\n";
        ulDropped = 0;
    }
    return sPiece;
}

void ConsoleQueue::enqueue(std::string sLine) {
    if (!bColour) {
        sLine = withoutEscapes(sLine);
    }
    // After a dropped line, all are dropped until the count is said: it stands where they are missing.
    if (ulDropped != 0 || sQueue.size() + sLine.size() > uLimit) {
        ++ulDropped;
        return;
    }
    sQueue += sLine;
}

struct ConsolePump::Channel {
    Channel(int iPipeEnd, int iOutput)
        : iPipe(iPipeEnd), iReal(iOutput), queue(kQueueBytes, isColourful(iOutput)) {}
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel() {
        close(iPipe);
        close(iReal);
    }

    const int iPipe; // its end for reading
    const int iReal;

    std::mutex lock; // for what follows
    std::condition_variable changed;
    ConsoleQueue queue;
    bool bInputOver = false; // by the reader: the pipe has no writer any more
    bool bWritten = false;   // by the writer: that was all

    void readAll();
    void writeAll();
};

// The reader: empties the pipe, whatever becomes of it.
void ConsolePump::Channel::readAll() {
    std::array<char, 65536> aBytes;
    for (;;) {
        const ssize_t lRead = read(iPipe, aBytes.data(), aBytes.size());
        if (lRead < 0 && errno == EINTR) {
            continue;
        }
        const std::lock_guard<std::mutex> guard(lock);
        if (lRead <= 0) {
            queue.finish();
            bInputOver = true;
            changed.notify_all();
            return;
        }
        queue.put({aBytes.data(), static_cast<size_t>(lRead)});
        changed.notify_all();
    }
}

// The writer. An output that fails loses the piece: there is nobody to tell.
void ConsolePump::Channel::writeAll() {
    std::unique_lock<std::mutex> guard(lock);
    for (;;) {
        std::string sPiece = queue.take(kWriteBytes);
        if (sPiece.empty() && bInputOver) {
            bWritten = true;
            changed.notify_all();
            return;
        }
        if (sPiece.empty()) {
            changed.wait(guard);
            continue;
        }
        guard.unlock();
        while (!sPiece.empty()) {
            const ssize_t lWritten = write(iReal, sPiece.data(), sPiece.size());
            if (lWritten >= 0) {
                sPiece.erase(0, static_cast<size_t>(lWritten));
            } else if (errno != EINTR) {
                break;
            }
        }
        guard.lock();
    }
}

ConsolePump::ConsolePump() {
    std::fflush(stdout);
    // One pipe for both keeps the order of the lines where both go to the same place.
    if (isSameFile(STDOUT_FILENO, STDERR_FILENO)) {
        open({STDOUT_FILENO, STDERR_FILENO});
    } else {
        open({STDOUT_FILENO});
        open({STDERR_FILENO});
    }
}

void ConsolePump::open(std::initializer_list<int> files) {
    std::array<int, 2> aPipe{};
    const int iReal = fcntl(*files.begin(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (iReal < 0 || pipe2(aPipe.data(), O_CLOEXEC) != 0) {
        close(iReal);
        return;
    }
    const auto pChannel = std::make_shared<Channel>(aPipe[0], iReal);
    for (const int iFile : files) {
        dup2(aPipe[1], iFile);
    }
    close(aPipe[1]);
    std::thread([pChannel] { pChannel->readAll(); }).detach();
    std::thread([pChannel] { pChannel->writeAll(); }).detach();
    channels.push_back(pChannel);
}

ConsolePump::~ConsolePump() {
    std::fflush(stdout);
    const int iNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (const int iFile : {STDOUT_FILENO, STDERR_FILENO}) {
        if (!channels.empty() && (iNull < 0 || dup2(iNull, iFile) < 0)) {
            close(iFile);
        }
    }
    close(iNull);
    const auto end = std::chrono::steady_clock::now() + kLastWait;
    for (const auto &pChannel : channels) {
        std::unique_lock<std::mutex> guard(pChannel->lock);
        pChannel->changed.wait_until(guard, end, [&] { return pChannel->bWritten; });
    }
}
