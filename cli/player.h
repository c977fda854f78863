// player.h - one mpv process: it is started, told what to show, and asked whether it does.
//
// Used by tune, in its thread. Everything that mpv is told goes through its JSON socket, in a folder that
// only this user can enter. Its command line is the same whatever is on air. The player owns the process,
// the folder and the pipe of an ASF cast.
#ifndef PCCAST_CLI_PLAYER_H
#define PCCAST_CLI_PLAYER_H

#include "json.h"

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

struct Descriptor {
    int i = -1;
    Descriptor() = default;
    explicit Descriptor(int iOpen) : i(iOpen) {}
    Descriptor(Descriptor &&other) noexcept : i(other.i) { other.i = -1; }
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(i, other.i);
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor(); // closes it
};

struct Player {
    std::string sProgram = "mpv";
    bool bFullScreen = false;

    std::string sFolder;
    pid_t iProcess = 0;
    Descriptor process; // readable when the process has ended
    Descriptor socket;  // to the process; -1: it does not listen yet
    std::string sUnsent;
    std::string sReceived;
    bool bLoading = false;    // it has not yet begun what it was told to show last
    Descriptor pipe;          // what an ASF cast is written to
    unsigned int uiPipes = 0; // made so far
    std::string sPipe;        // its path
    std::string sUnpiped;
};

// Makes the folder. Returns what is wrong, or an empty text.
std::string playerOpen(Player *pPlayer);

// Starts the process. Returns what is wrong, or an empty text.
std::string playerStart(Player *pPlayer);

// Connects to the process, which may not listen yet. Returns true when the connection stands.
bool playerConnect(Player *pPlayer);

// Sends one command, without waiting. What the process does not take is kept; when that becomes too much, the
// socket is closed.
void playerSend(Player *pPlayer, const Json &command);

// Sends what was kept, and returns the messages that have come, but for the end of what was shown before the
// last command to show something. The socket is closed when that fails.
std::vector<Json> playerReceive(Player *pPlayer);

// The kind of event that a message is; empty for an answer.
std::string playerEvent(const Json &message);

// Shows a transport stream. sURL is ours. Shows what is written by playerWrite from now on: an ASF file.
void playerPlayURL(Player *pPlayer, const std::string &sURL);
void playerPlayPipe(Player *pPlayer);
// Writes to the pipe, without waiting. Returns false when the player has fallen too far behind: the bytes are
// dropped then.
bool playerWrite(Player *pPlayer, const std::string &sBytes);
void playerFlush(Player *pPlayer);
// Shows nothing.
void playerStop(Player *pPlayer);

// Waits for a process that has ended, or ends it first. Returns how it ended, in words.
std::string playerReap(Player *pPlayer);

// Ends the process, and removes the folder.
void playerClose(Player *pPlayer);

#endif
