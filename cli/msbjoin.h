// msbjoin.h - makes an ASF file again of the packets of an ASF cast.
//
// Used by tune and receive. Pure: datagrams and the time go in, pieces of a file come out. Packets carry
// numbers: one that comes twice is dropped, those out of order are put in order, and a lost one is not waited
// for longer than 100 ms. Nothing in a datagram is trusted, and no more than kMSBHeldMost packets are kept.
#ifndef PCCAST_CLI_MSBJOIN_H
#define PCCAST_CLI_MSBJOIN_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

constexpr size_t kMSBHeldMost = 64;

// A format of the station file: what begins a file, and the size of its packets.
struct MSBFormat {
    unsigned int uiFormatID = 0;
    unsigned int uiPacketSize = 0;
    std::string sHeader;
};

struct MSBPiece {
    bool bBegins = false; // a new file: these bytes are its header
    std::string sBytes;   // the header, or one whole data packet
};

struct MSBCounts {
    unsigned long ulPackets = 0;  // handed on
    unsigned long ulLost = 0;     // never came, or came too late
    unsigned long ulRepeated = 0; // came twice, or too late
    unsigned long ulForeign = 0;  // no packets of this station
};

struct MSBHeld {
    std::string sBytes;
    unsigned long ulSince = 0;
};

struct MSBJoin {
    std::vector<MSBFormat> formats;
    MSBCounts counts;
    std::optional<unsigned short> usStream; // the stream id of the playout; none before the first packet
    uint32_t uiNext = 0;                    // the packet number that is due
    std::map<uint32_t, MSBHeld> held;       // by their distance from uiNext, never 0
    unsigned long ulChanged = 0;            // when the playout began
    unsigned long ulHeard = 0;              // when the last packet of it came
};

// Reads the formats of a station file's text, and where its packets go. Returns what is wrong, or an empty
// text. The outputs change on success alone.
std::string msbReadStation(const std::string &sStation, std::vector<MSBFormat> *pFormats,
                           std::string *psAddress, unsigned short *pusPort);

// Takes one datagram. ulNow: milliseconds of any clock that runs on. Appends to *pPieces what can be written.
void msbTake(MSBJoin *pJoin, const unsigned char *pBytes, size_t uLength, unsigned long ulNow,
             std::vector<MSBPiece> *pPieces);

// Gives up lost packets whose time is over. Call it at least every 100 ms while held is not empty.
void msbTick(MSBJoin *pJoin, unsigned long ulNow, std::vector<MSBPiece> *pPieces);

// "250 packets, 2 lost, 1 repeated"
std::string msbText(const MSBCounts &counts);

#endif
