// filewindow.h - reads a stored file through one bounded buffer.
//
// Used by the readers of stored files and by the station tool. Each thread has windows of its own. The file
// may grow or shrink meanwhile: it is read, not mapped, so each read sees the file as it is then.
#ifndef FRAMEWORK_FILEWINDOW_H
#define FRAMEWORK_FILEWINDOW_H

#include <string>
#include <vector>

// A stretch of a file in memory.
struct FileWindow {
    int iFile = -1;                    // borrowed
    unsigned long long ullOffset = 0;  // file offset of the buffer's first byte
    std::size_t ulLength = 0;          // bytes of the buffer that hold file content
    int iError = 0;                    // errno of a read that failed, 0 none
    std::vector<unsigned char> buffer; // never grows
};

// Opens a regular file for reading. Refuses every other kind, and so never blocks (as a FIFO without a
// writer would). Returns the descriptor; -1 with the reason in sReason.
int fileOpenRegular(const char *pszFile, std::string &sReason);

// Sets window to read iFile through a buffer of ulSize bytes.
void windowOpen(FileWindow &window, int iFile, std::size_t ulSize);

// Returns the file's bytes from ullOffset on, valid until the next call. ulHave takes their number: at
// least ulNeed if the file has as many, 0 at its end or after a failed read. A failed read also sets
// iError.
// ulNeed: at most the buffer's size.
const unsigned char *windowBytes(FileWindow &window, unsigned long long ullOffset, std::size_t ulNeed,
                                 std::size_t &ulHave);

// Returns the file offset of the next stored bytes at or after ullOffset. Skips the hole of a sparse file;
// returns the file's end if nothing follows. Returns ullOffset if the file system cannot tell.
unsigned long long windowSkipHole(const FileWindow &window, unsigned long long ullOffset);

#endif
