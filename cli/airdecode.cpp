#include "airdecode.h"

#include <ktpacket.h>
#include <qxapi.h>
#include <qxapi_ktn_frame.h>

#include <array>
#include <cstdio>

namespace {

constexpr unsigned int kServiceAir = 204;

constexpr unsigned short kTagCheck = 1100;
constexpr unsigned short kTagStationCheck = 1101;
constexpr unsigned short kTagStation = 1103;

// The kinds of frame by identification word and command.
struct FrameKind {
    unsigned int uiIdent;
    unsigned int uiCommand;
    AirKind eKind;
};
constexpr std::array<FrameKind, 3> kFrameKinds{
    {{1234, 0x40030, AIR_ANNOUNCEMENT}, {1234, 0x40033, AIR_END}, {14, 0x40020, AIR_MESSAGE}}};

// The items of either kind: numbers with their length on the wire, texts of any length.
struct NumberItem {
    bool bMessage;
    unsigned short usTag;
    unsigned long ulLength;
    const char *pszName;
    std::optional<unsigned int> AirRecord::*pField;
};
constexpr std::array<NumberItem, 12> kNumberItems{{
    {false, 0x0701, 4, "programme", &AirRecord::uiEPGID},
    {false, 0x701D, 4, "type", &AirRecord::uiType},
    {false, 0x701C, 4, "format", &AirRecord::uiFormat},
    {false, 0x7011, 4, "start time", &AirRecord::uiST},
    {false, 0x7012, 4, "end time", &AirRecord::uiET},
    {false, 0x7017, 2, "port", &AirRecord::uiPort},
    {true, 0x004B, 4, "send time", &AirRecord::uiMessageTime},
    {true, 0x000B, 4, "start time", &AirRecord::uiST},
    {true, 0x000C, 4, "end time", &AirRecord::uiET},
    {true, 0x500A, 2, "showings", &AirRecord::uiShowings},
    {true, 0x5003, 4, "attribute 3", &AirRecord::uiAttr3},
    {true, 0x5001, 4, "attribute 1", &AirRecord::uiAttr1},
}};

struct TextItem {
    bool bMessage;
    unsigned short usTag;
    std::optional<std::string> AirRecord::*pField;
};
constexpr std::array<TextItem, 3> kTextItems{{
    {false, 0x7014, &AirRecord::sAddress},
    {false, kTagStation, &AirRecord::sStation},
    {true, 0x500B, &AirRecord::sText},
}};

void noteItem(const KTPacketItem &item, bool bMessage, AirRecord *pRecord) {
    for (const NumberItem &number : kNumberItems) {
        if (number.bMessage != bMessage || number.usTag != item.usTag) {
            continue;
        }
        if (item.ulLength != number.ulLength) {
            pRecord->sProblems.push_back(std::string("the ") + number.pszName + " has " +
                                         std::to_string(item.ulLength) + " bytes, not " +
                                         std::to_string(number.ulLength));
            return;
        }
        pRecord->*number.pField =
            number.ulLength == 2 ? ktpacketGetWORD(item.pValue) : ktpacketGetDWORD(item.pValue);
        return;
    }
    for (const TextItem &text : kTextItems) {
        if (text.bMessage == bMessage && text.usTag == item.usTag) {
            pRecord->*text.pField = std::string(reinterpret_cast<const char *>(item.pValue), item.ulLength);
            return;
        }
    }
}

AirCheck compareCheck(const KTPacketItem &item, const unsigned char *pBytes, unsigned long ulLength,
                      const char *pszWhat, AirRecord *pRecord) {
    std::array<char, 128> aText{};
    const unsigned int uiComputed = qxapi_crc32(0xFFFFFFFFu, pBytes, ulLength);
    if (item.ulLength != 4) {
        std::snprintf(aText.data(), aText.size(), "the CRC of %s has %lu bytes, not 4", pszWhat,
                      item.ulLength);
    } else if (ktpacketGetDWORD(item.pValue) != uiComputed) {
        std::snprintf(aText.data(), aText.size(), "the CRC of %s is %08X, its bytes give %08X", pszWhat,
                      ktpacketGetDWORD(item.pValue), uiComputed);
    } else {
        return AIR_CHECK_GOOD;
    }
    pRecord->sProblems.emplace_back(aText.data());
    return AIR_CHECK_WRONG;
}

// An announcement's checks: the first item's CRC covers what lies behind it up to the station file's CRC, or
// the end; that one covers the station file's bytes.
void checkAnnouncement(const unsigned char *pPayload, unsigned long ulLength, AirRecord *pRecord) {
    KTPacketItem first{};
    KTPacketItem stationCheck{};
    unsigned long ulOffset = 0;
    unsigned long ulCoverEnd = ulLength;
    if (!ktpacketNextItem(pPayload, ulLength, &ulOffset, &first) || first.usTag != kTagCheck) {
        pRecord->sProblems.emplace_back("it does not begin with its CRC");
        return;
    }
    const unsigned long ulCoverBegin = ulOffset;
    KTPacketItem item{};
    for (unsigned long ulItem = ulOffset; ktpacketNextItem(pPayload, ulLength, &ulOffset, &item);
         ulItem = ulOffset) {
        if (item.usTag == kTagStationCheck) {
            stationCheck = item;
            ulCoverEnd = ulItem;
            break;
        }
    }
    pRecord->eCheck =
        compareCheck(first, pPayload + ulCoverBegin, ulCoverEnd - ulCoverBegin, "the announcement", pRecord);
    if (stationCheck.pValue != nullptr && pRecord->sStation) {
        pRecord->eStationCheck =
            compareCheck(stationCheck, reinterpret_cast<const unsigned char *>(pRecord->sStation->data()),
                         pRecord->sStation->size(), "the station file", pRecord);
    }
}

} // namespace

AirRecord decodeAir(const unsigned char *pBytes, unsigned long ulLength) {
    AirRecord record;
    KTNET_FRAME frame{};
    const int iFrame = ktn_xapi_frame_decode(pBytes, ulLength, &frame);
    if (iFrame != KTNET_FRAME_GOOD) {
        record.sProblems.push_back("not a frame: " + std::string(ktn_xapi_frame_text(iFrame)));
        return record;
    }
    record.eKind = AIR_UNKNOWN;
    record.uiIdent = frame.uiIdent;
    record.uiService = frame.uiService;
    record.uiCommand = frame.uiCommand;
    record.uiSendTime = frame.uiParam;
    for (const FrameKind &kind : kFrameKinds) {
        if (frame.uiService == kServiceAir && frame.uiIdent == kind.uiIdent &&
            frame.uiCommand == kind.uiCommand) {
            record.eKind = kind.eKind;
        }
    }
    if (record.eKind == AIR_UNKNOWN) {
        record.sProblems.emplace_back("a frame that is neither an announcement nor a message");
        return record;
    }

    const bool bMessage = record.eKind == AIR_MESSAGE;
    KTPacketItem item{};
    unsigned long ulOffset = 0;
    while (ktpacketNextItem(frame.pPayload, frame.uiPayloadLen, &ulOffset, &item)) {
        noteItem(item, bMessage, &record);
    }
    if (ulOffset != frame.uiPayloadLen) {
        record.sProblems.push_back("the item at byte " + std::to_string(ulOffset) +
                                   " does not fit into the " + std::to_string(frame.uiPayloadLen) +
                                   " bytes of the payload");
        record.eKind = AIR_BROKEN;
    } else if (bMessage && !record.sText) {
        record.sProblems.emplace_back("a message without a text");
        record.eKind = AIR_BROKEN;
    } else if (!bMessage && !record.uiEPGID) {
        record.sProblems.emplace_back("an announcement without a programme");
        record.eKind = AIR_BROKEN;
    } else if (!bMessage) {
        checkAnnouncement(frame.pPayload, frame.uiPayloadLen, &record);
    }
    return record;
}

std::string airTypeText(const AirRecord &record) {
    if (!record.uiType) {
        return "-";
    }
    switch (*record.uiType) {
    case 1:
        return "stream";
    case 16:
        return "file";
    default:
        return "type " + std::to_string(*record.uiType);
    }
}

std::string airFormatText(const AirRecord &record) {
    if (!record.uiFormat) {
        return "-";
    }
    std::array<char, 32> aText{};
    switch (*record.uiFormat) {
    case 2:
        return "H.264";
    case 3:
        return "ASF";
    default:
        std::snprintf(aText.data(), aText.size(), "0x%x", *record.uiFormat);
        return aText.data();
    }
}
