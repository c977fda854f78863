#include "filewindow.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t READ_AHEAD =
    1024 * 1024; // asked of the system ahead of the buffer, so that reads do not wait

const char *kindOfFile(mode_t uiMode) {
    switch (uiMode & S_IFMT) {
    case S_IFDIR:
        return "a directory";
    case S_IFIFO:
        return "a FIFO";
    case S_IFCHR:
    case S_IFBLK:
        return "a device";
    case S_IFSOCK:
        return "a socket";
    default:
        return "something else";
    }
}

} // namespace

int fileOpenRegular(const char *pszFile, std::string &sReason) {
    // A socket and some devices refuse to be opened in words that say little, so the kind is looked at first.
    struct stat Status {};
    if (stat(pszFile, &Status) != 0) {
        sReason = std::string("it cannot be opened: ") + std::strerror(errno);
        return -1;
    }
    int iFile = -1;
    if (S_ISREG(Status.st_mode)) {
        iFile = open(pszFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (iFile < 0 || fstat(iFile, &Status) != 0) {
            sReason = std::string("it cannot be opened: ") + std::strerror(errno);
            if (iFile >= 0)
                close(iFile);
            return -1;
        }
    }
    if (!S_ISREG(Status.st_mode)) {
        sReason = std::string("it is ") + kindOfFile(Status.st_mode) + ", not a regular file";
        if (iFile >= 0)
            close(iFile);
        return -1;
    }
    return iFile;
}

void windowOpen(FILEWINDOW &Window, int iFile, std::size_t ulSize) {
    Window.iFile = iFile;
    Window.ullOffset = 0;
    Window.ulLength = 0;
    Window.iError = 0;
    Window.Buffer.resize(ulSize);
}

const unsigned char *windowBytes(FILEWINDOW &Window, unsigned long long ullOffset, std::size_t ulNeed,
                                 std::size_t &ulHave) {
    ulHave = 0;
    if (ullOffset >= Window.ullOffset && ullOffset - Window.ullOffset <= Window.ulLength)
        ulHave = Window.ulLength - static_cast<std::size_t>(ullOffset - Window.ullOffset);
    if (ulHave < ulNeed && ullOffset < static_cast<unsigned long long>(std::numeric_limits<off_t>::max())) {
        // What is held already is kept, the rest read behind it.
        if (ulHave > 0)
            std::memmove(Window.Buffer.data(), Window.Buffer.data() + (ullOffset - Window.ullOffset), ulHave);
        Window.ullOffset = ullOffset;
        while (ulHave < Window.Buffer.size()) {
            const ssize_t lRead =
                pread(Window.iFile, Window.Buffer.data() + ulHave, Window.Buffer.size() - ulHave,
                      static_cast<off_t>(ullOffset + ulHave));
            if (lRead < 0 && errno == EINTR)
                continue;
            if (lRead < 0)
                Window.iError = errno;
            if (lRead <= 0)
                break;
            ulHave += static_cast<std::size_t>(lRead);
        }
        Window.ulLength = ulHave;
        if (ulHave == Window.Buffer.size())
            posix_fadvise(Window.iFile, static_cast<off_t>(ullOffset + ulHave), READ_AHEAD,
                          POSIX_FADV_WILLNEED);
    }
    if (ullOffset < Window.ullOffset || ullOffset - Window.ullOffset > Window.ulLength) {
        ulHave = 0; // beyond what a file can have
        return Window.Buffer.data();
    }
    return Window.Buffer.data() + (ullOffset - Window.ullOffset);
}

unsigned long long windowSkipHole(const FILEWINDOW &Window, unsigned long long ullOffset) {
    off_t lData = lseek(Window.iFile, static_cast<off_t>(ullOffset), SEEK_DATA);
    if (lData < 0 && errno == ENXIO)
        lData = lseek(Window.iFile, 0, SEEK_END);
    return std::max(ullOffset, static_cast<unsigned long long>(std::max<off_t>(lData, 0)));
}
