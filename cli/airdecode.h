// airdecode.h - what one datagram of the announcement or message group says.
//
// A pure function from bytes to a record, used by watch. Nothing in a datagram is trusted: whatever does not
// hold is noted in the record, and what could be read is there all the same.
#ifndef PCCAST_CLI_AIRDECODE_H
#define PCCAST_CLI_AIRDECODE_H

#include <optional>
#include <string>
#include <vector>

enum AirKind {
    AIR_BROKEN,       // no frame, or a frame whose items cannot be read: sProblems says why
    AIR_UNKNOWN,      // a good frame that is neither an announcement nor a message
    AIR_ANNOUNCEMENT, // a cast is on air
    AIR_END,          // a cast has ended
    AIR_MESSAGE       // a text to show
};

enum AirCheck { AIR_CHECK_ABSENT, AIR_CHECK_GOOD, AIR_CHECK_WRONG };

struct AirRecord {
    AirKind eKind = AIR_BROKEN;
    std::vector<std::string> sProblems; // what did not hold; a text of our own, safe to print

    // The frame's header words, once it is a frame.
    unsigned int uiIdent = 0;
    unsigned int uiService = 0;
    unsigned int uiCommand = 0;
    unsigned int uiSendTime = 0; // seconds

    // The items; an absent one has no value. Texts are as received: any bytes.
    std::optional<unsigned int> uiEPGID;
    std::optional<unsigned int> uiType;   // 16 a file, 1 a stream
    std::optional<unsigned int> uiFormat; // 3 ASF, 2 H.264, else the request's own number
    std::optional<unsigned int> uiST;
    std::optional<unsigned int> uiET;
    std::optional<std::string> sAddress;
    std::optional<unsigned int> uiPort;
    AirCheck eCheck = AIR_CHECK_ABSENT;        // the announcement's own CRC
    AirCheck eStationCheck = AIR_CHECK_ABSENT; // the station file's CRC
    std::optional<std::string> sStation;       // the station file
    std::optional<unsigned int> uiMessageTime;
    std::optional<unsigned int> uiShowings;
    std::optional<unsigned int> uiAttr1;
    std::optional<unsigned int> uiAttr3;
    std::optional<std::string> sText;
};

// Decodes one whole datagram of ulLength bytes.
AirRecord decodeAir(const unsigned char *pBytes, unsigned long ulLength);

// Words for a record's values.
std::string airTypeText(const AirRecord &record);   // "stream", "file", "type 7", "-"
std::string airFormatText(const AirRecord &record); // "ASF", "H.264", "0x2000", "-"

#endif
