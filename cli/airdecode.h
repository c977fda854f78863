// airdecode.h - what one datagram of the announcement or message group says.
//
// A pure function from bytes to a record, used by watch. It trusts nothing in a datagram: the record notes
// every fault, and keeps what could be read. wire.h has the numbers.
#ifndef PCCAST_CLI_AIRDECODE_H
#define PCCAST_CLI_AIRDECODE_H

#include <optional>
#include <string>
#include <vector>

enum AirKind {
    AIR_BROKEN,       // no frame, or a frame whose items cannot be read: sProblems says why
    AIR_UNKNOWN,      // a sound frame that is neither an announcement nor a message
    AIR_ANNOUNCEMENT, // a cast is on air
    AIR_END,          // a cast has ended
    AIR_MESSAGE       // a text to show
};

enum AirCheck { AIR_CHECK_ABSENT, AIR_CHECK_GOOD, AIR_CHECK_WRONG };

struct AirRecord {
    AirKind eKind = AIR_BROKEN;
    std::vector<std::string> sProblems; // the faults, in our own words: safe to print

    // The words of the frame's header.
    unsigned int uiIdent = 0;
    unsigned int uiService = 0;
    unsigned int uiCommand = 0;
    unsigned int uiSendTime = 0; // seconds

    // The items; an absent one has no value. Texts are as received: any bytes.
    std::optional<unsigned int> uiEPGID;
    std::optional<unsigned int> uiType;   // BCI_TYPE_...
    std::optional<unsigned int> uiFormat; // BCI_FORMAT_..., or the number in the request
    std::optional<unsigned int> uiST;
    std::optional<unsigned int> uiET;
    std::optional<std::string> sAddress;
    std::optional<unsigned short> usPort;
    AirCheck eCheck = AIR_CHECK_ABSENT;        // the announcement's own CRC
    AirCheck eStationCheck = AIR_CHECK_ABSENT; // the station file's CRC
    std::optional<std::string> sStation;       // the station file
    std::optional<unsigned int> uiMessageTime;
    std::optional<unsigned short> usShowings;
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
