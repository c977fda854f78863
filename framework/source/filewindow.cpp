#include "filewindow.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t kReadAhead = off_t{1024} * 1024; // bytes that the system reads ahead, so that no read waits

const char *kindOfFile(mode_t uiMode) {
    switch (uiMode & S_IFMT) {
    case S_IFDIR:
        return "a directory";
    case S_IFIFO:
        return "a FIFO";
    case S_IFCHR:
    case S_IFBLK:
        return "a device";
    default:
        return "a socket";
    }
}

} // namespace

int fileOpenRegular(const char *pszFile, std::string &sReason) {
    // Look at the kind first: for a socket and some devices, the error of open() says little.
    struct stat status {};
    if (stat(pszFile, &status) == 0 && !S_ISREG(status.st_mode)) {
        sReason = std::string("it is ") + kindOfFile(status.st_mode) + ", not a regular file";
        return -1;
    }
    const int iFile = open(pszFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (iFile < 0) {
        sReason = std::string("it cannot be opened: ") + std::strerror(errno);
        return -1;
    }
    if (fstat(iFile, &status) != 0 || !S_ISREG(status.st_mode)) {
        sReason = "it was replaced while it was opened";
        close(iFile);
        return -1;
    }
    return iFile;
}

void windowOpen(FileWindow &window, int iFile, std::size_t ulSize) {
    window.iFile = iFile;
    window.ullOffset = 0;
    window.ulLength = 0;
    window.iError = 0;
    window.buffer.resize(ulSize);
}

const unsigned char *windowBytes(FileWindow &window, unsigned long long ullOffset, std::size_t ulNeed,
                                 std::size_t &ulHave) {
    ulHave = 0;
    if (ullOffset >= window.ullOffset && ullOffset - window.ullOffset <= window.ulLength) {
        ulHave = window.ulLength - static_cast<std::size_t>(ullOffset - window.ullOffset);
    }
    if (ulHave < ulNeed && ullOffset < static_cast<unsigned long long>(std::numeric_limits<off_t>::max())) {
        // Keep the bytes that are here already and read the rest behind them.
        if (ulHave > 0) {
            std::memmove(window.buffer.data(), window.buffer.data() + (ullOffset - window.ullOffset), ulHave);
        }
        window.ullOffset = ullOffset;
        while (ulHave < window.buffer.size()) {
            const ssize_t lRead =
                pread(window.iFile, window.buffer.data() + ulHave, window.buffer.size() - ulHave,
                      static_cast<off_t>(ullOffset + ulHave));
            if (lRead < 0 && errno == EINTR) {
                continue;
            }
            if (lRead < 0) {
                window.iError = errno;
            }
            if (lRead <= 0) {
                break;
            }
            ulHave += static_cast<std::size_t>(lRead);
        }
        window.ulLength = ulHave;
        if (ulHave == window.buffer.size()) {
            posix_fadvise(window.iFile, static_cast<off_t>(ullOffset + ulHave), kReadAhead,
                          POSIX_FADV_WILLNEED);
        }
    }
    if (ullOffset < window.ullOffset || ullOffset - window.ullOffset > window.ulLength) {
        return window.buffer.data(); // no file reaches this offset
    }
    return window.buffer.data() + (ullOffset - window.ullOffset);
}

unsigned long long windowSkipHole(const FileWindow &window, unsigned long long ullOffset) {
    off_t lData = lseek(window.iFile, static_cast<off_t>(ullOffset), SEEK_DATA);
    if (lData < 0 && errno == ENXIO) {
        lData = lseek(window.iFile, 0, SEEK_END);
    }
    return std::max(ullOffset, static_cast<unsigned long long>(std::max<off_t>(lData, 0)));
}
