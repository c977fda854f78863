// consolepump.h - carries the service's console lines to the real standard output and standard error.
//
// Used by serve. While the pump runs, descriptors 1 and 2 are pipes, and a thread of the pump's own empties
// each of them at all times. So a console that nobody reads (Ctrl-S, a full pipe) cannot stop a thread of the
// service. A second thread writes to the real output and may wait there. What does not fit into the queue
// between the two is dropped and counted by the line; the count is said when the output flows again.
#ifndef PCCAST_CLI_CONSOLEPUMP_H
#define PCCAST_CLI_CONSOLEPUMP_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Whether the descriptor is a terminal whose cursor can be moved: TERM is set and is not "dumb".
bool isScreen(int iFile);
// Whether it also takes colours: NO_COLOR is not set.
bool isColourful(int iFile);

// The bytes that wait for the real output, with a limit. The owner locks.
class ConsoleQueue {
public:
    // uBytes: how many it holds at most. bWithColour: escape sequences stay in.
    ConsoleQueue(size_t uBytes, bool bWithColour) : uLimit(uBytes), bColour(bWithColour) {}

    // Takes bytes as they come. A whole line enters the queue, or is dropped and counted. A part of a line
    // waits for its end; a very long part goes on without.
    void put(std::string_view sBytes);
    // The input is over: a part that waits enters the queue as it is.
    void finish();
    // Takes out what is to be written next, at most uMost bytes; empty when there is nothing.
    std::string take(size_t uMost);

private:
    void enqueue(std::string sLine);

    size_t uLimit;
    bool bColour;
    std::string sPart;
    std::string sQueue;
    unsigned long ulDropped = 0; // lines since the last count was said
};

class ConsolePump {
public:
    // Puts the pipes in place and starts the threads. Block the signals before: the threads inherit the mask.
    // Where the system refuses a pipe, the output stays as it is.
    ConsolePump();
    // Flushes standard output and waits until all is written, for at most two seconds. From then on
    // descriptors 1 and 2 are /dev/null, because a thread of the service may still hold them.
    ~ConsolePump();
    ConsolePump(const ConsolePump &) = delete;
    ConsolePump &operator=(const ConsolePump &) = delete;

private:
    struct Channel; // shared with its threads, which live on where a write hangs
    std::vector<std::shared_ptr<Channel>> channels;

    void open(std::initializer_list<int> files);
};

#endif
