// tunelogic.h - what a receiver does with what it hears: datagrams of the group and the time go in, commands
// for a player come out.
//
// Used by tune and receive. Pure. A datagram that does not hold in every detail changes nothing. A command
// holds addresses written anew from their numbers, our own words, and the text of messages, which bannerDraw
// makes harmless; nothing else of a datagram.
#ifndef PCCAST_CLI_TUNELOGIC_H
#define PCCAST_CLI_TUNELOGIC_H

#include "airdecode.h"
#include "banner.h"
#include "msbjoin.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

// The cast has ended when it has not been announced for so long. The service announces it every 11 s.
constexpr unsigned long kTunePatience = 25'000; // ms

struct TuneCast {
    unsigned int uiEPGID = 0;
    unsigned int uiType = 0;
    unsigned int uiST = 0;
    bool bASF = false;
    std::string sGroup; // a multicast group, written anew
    unsigned short usPort = 0;
    std::vector<MSBFormat> formats; // ASF
    std::string sStation;           // ASF: the station file, to tell whether it changes
};

enum TuneCommandKind {
    TUNE_PLAY, // cast
    TUNE_STOP,
    TUNE_SHOW, // page, in place of the one that is shown
    TUNE_HIDE
};

struct TuneCommand {
    TuneCommandKind eKind;
    TuneCast cast;
    BannerPage page;
};

// Tells a message from the same one delivered twice.
struct TuneHeard {
    unsigned int uiSent = 0;
    size_t uHash = 0;
};

struct TuneState {
    std::optional<TuneCast> cast;
    unsigned long ulAnnounced = 0;      // ms: when the cast was last announced
    std::optional<unsigned int> uiSent; // the send time of the last announcement that counted
    bool bEnded = false;                // that was the announcement of an end
    unsigned long ulCounted = 0;        // ms: when it came
    std::array<TuneHeard, 16> aHeard{}; // the last messages, in a ring
    size_t uHeard = 0;
    std::vector<BannerPage> pages; // of the message that is shown, the current one first
    unsigned long ulPageEnd = 0;   // ms
};

// Takes one datagram of either port. ulNow: milliseconds of a clock that runs on.
std::vector<TuneCommand> tuneHear(TuneState *pState, const AirRecord &record, unsigned long ulNow);

// To be called at least twice a second.
std::vector<TuneCommand> tuneTick(TuneState *pState, unsigned long ulNow);

// What brings a player that has just started to where it should be.
std::vector<TuneCommand> tuneResume(const TuneState &state);

#endif
