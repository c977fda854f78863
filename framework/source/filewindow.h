// filewindow.h - reading a stored file through one bounded buffer.
//
// Used by the readers of stored files and by the station tool, each on its own thread with windows of its
// own. A file that grows or shrinks while it is read is read as it is at that moment: nothing is mapped.
#ifndef FRAMEWORK_FILEWINDOW_H
#define FRAMEWORK_FILEWINDOW_H

#include <string>
#include <vector>

// A stretch of a file in memory.
struct FileWindow {
    int iFile = -1;                    // the file, borrowed
    unsigned long long ullOffset = 0;  // where in the file the buffer begins
    std::size_t ulLength = 0;          // bytes of the buffer that hold file content
    int iError = 0;                    // errno of a read that failed, 0 none
    std::vector<unsigned char> buffer; // its size is the most that is ever held
};

// Opens a regular file for reading; nothing else is opened, and nothing blocks (a FIFO without a writer).
// Returns the descriptor, or -1 and in sReason what is the matter with it.
int fileOpenRegular(const char *pszFile, std::string &sReason);

// Sets Window to the whole of iFile with a buffer of ulSize bytes.
void windowOpen(FileWindow &window, int iFile, std::size_t ulSize);

// Returns the file's bytes from ullOffset on: at least ulNeed where the file has so many, and in ulHave how
// many they are (0 at the end of the file or after a failed read, which sets iError). ulNeed is at most the
// buffer's size. The bytes are valid until the next call.
const unsigned char *windowBytes(FileWindow &window, unsigned long long ullOffset, std::size_t ulNeed,
                                 std::size_t &ulHave);

// Returns where the file's next stored bytes are, from ullOffset on: behind the hole of a sparse file, or the
// file's end. Where that cannot be told, ullOffset.
unsigned long long windowSkipHole(const FileWindow &window, unsigned long long ullOffset);

#endif
