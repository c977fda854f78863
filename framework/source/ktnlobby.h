// ktnlobby.h - where the clients of a local listener wait until they have sent something.
//
// The receiver serves one client at a time. So a client that connects and stays silent must not be handed to
// it. The lobby takes every client in, in the order of their connections, and hands out the first whose frame
// has arrived. It drops a client that has sent no frame when the listener's time-out is over.
//
// A lobby belongs to its listener's endpoint, and its thread. Only the list of lobbies is shared: it leads
// from a socket number to its lobby, because ktn_xapi_rx_poll_socket is given nothing else.
#ifndef FRAMEWORK_KTNLOBBY_H
#define FRAMEWORK_KTNLOBBY_H

#include "deadline.h"

#include <array>
#include <cstddef>

// The clients that wait at once. While the lobby is full, the one that has been silent for the longest makes
// room for the next, after kLobbyGraceMs.
constexpr std::size_t kLobbySize = 64;
constexpr int kLobbyGraceMs = 100;

struct KtnLobbyClient {
    int iSocket;
    Deadline entered;
};

struct KtnLobby {
    int iListener = -1; // -1 while the lobby is closed
    unsigned int uiTimeoutMs = 0;
    std::array<KtnLobbyClient, kLobbySize> clients{}; // in the order of their connections
    std::size_t ulClients = 0;
    KtnLobby *pNext = nullptr; // in the list of lobbies
};

// Opens the lobby of a listener, closed so far. uiTimeoutMs: how long a client may take to send a frame.
void ktnLobbyOpen(KtnLobby &lobby, int iListener, unsigned int uiTimeoutMs);

// Closes the lobby and all who wait in it. Does nothing if it is closed already.
void ktnLobbyClose(KtnLobby &lobby);

// Returns the open lobby of a listener, null if the socket has none.
KtnLobby *ktnLobbyOf(int iListener);

// Waits at most uiTimeoutMs until ktnLobbyTake has a result. Returns 1, 0 if there is none in time (also if a
// signal cut the wait short), or a negative errno.
int ktnLobbyWait(KtnLobby &lobby, unsigned int uiTimeoutMs);

// Takes the first client that has sent a frame, or so much of a long one that the rest is on its way. The
// caller owns the socket. Does not wait. Returns -EAGAIN if there is none, or a negative errno (reported).
int ktnLobbyTake(KtnLobby &lobby);

#endif
