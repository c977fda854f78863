#include "airdecode.h"

#include "ktpacket.h"
#include "wire.h"

#include <pccast/msginfo.h>
#include <qxapi.h>
#include <qxapi_ktn_frame.h>

#include <array>
#include <cstdio>
#include <span>
#include <type_traits>
#include <variant>

namespace {

// An item that is read: its tag, its name in a problem, and the member that keeps it. The member's type says
// how it is read: a number has as many bytes as its member, a text has any length.
struct Item {
    unsigned short usTag;
    const char *pszName;
    std::variant<std::optional<unsigned int> AirRecord::*, std::optional<unsigned short> AirRecord::*,
                 std::optional<std::string> AirRecord::*>
        member;
};

constexpr std::array<Item, 8> kAnnouncementItems{{
    {wire::announcement::kEPGID, "programme", &AirRecord::uiEPGID},
    {wire::announcement::kType, "type", &AirRecord::uiType},
    {wire::announcement::kFormat, "format", &AirRecord::uiFormat},
    {wire::announcement::kStartTime, "start time", &AirRecord::uiST},
    {wire::announcement::kEndTime, "end time", &AirRecord::uiET},
    {wire::announcement::kAddress, "address", &AirRecord::sAddress},
    {wire::announcement::kDestinationPort, "port", &AirRecord::usPort},
    {wire::announcement::kStation, "station file", &AirRecord::sStation},
}};
constexpr std::array<Item, 7> kMessageItems{{
    {wire::broadcast::kSendTime, "send time", &AirRecord::uiMessageTime},
    {wire::message::kStartTime, "start time", &AirRecord::uiST},
    {wire::message::kEndTime, "end time", &AirRecord::uiET},
    {wire::message::kRepeat, "showings", &AirRecord::usShowings},
    {wire::message::kAttribute3, "attribute 3", &AirRecord::uiAttr3},
    {wire::message::kAttribute1, "attribute 1", &AirRecord::uiAttr1},
    {wire::message::kText, "text", &AirRecord::sText},
}};

// The frames that are read, by the three words of their header.
struct FrameKind {
    unsigned int uiIdent;
    unsigned int uiService;
    unsigned int uiCommand;
    AirKind eKind;
    std::span<const Item> items;
};
constexpr std::array<FrameKind, 3> kFrameKinds{{
    {wire::announcement::kIdent, wire::announcement::kService, BCI_CMD_ONAIR, AIR_ANNOUNCEMENT,
     kAnnouncementItems},
    {wire::announcement::kIdent, wire::announcement::kService, BCI_CMD_END, AIR_END, kAnnouncementItems},
    {wire::broadcast::kIdent, wire::broadcast::kService, PCMBC_CMD_MSG, AIR_MESSAGE, kMessageItems},
}};

// The kind of the frame, null when it is none of the above.
const FrameKind *findKind(const KTNET_FRAME &frame) {
    for (const FrameKind &kind : kFrameKinds) {
        if (frame.uiIdent == kind.uiIdent && frame.uiService == kind.uiService &&
            frame.uiCommand == kind.uiCommand) {
            return &kind;
        }
    }
    return nullptr;
}

// Stores the value in the row's member, or notes that a number has the wrong length.
void storeItem(const Item &row, const KTPacketItem &item, AirRecord *pRecord) {
    std::visit(
        [&](auto member) {
            auto &value = pRecord->*member;
            using Value = typename std::decay_t<decltype(value)>::value_type;
            if constexpr (std::is_same_v<Value, std::string>) {
                value.emplace(reinterpret_cast<const char *>(item.pValue), item.ulLength);
            } else if (item.ulLength != sizeof(Value)) {
                pRecord->sProblems.push_back(std::string("the ") + row.pszName + " has " +
                                             std::to_string(item.ulLength) + " bytes, not " +
                                             std::to_string(sizeof(Value)));
            } else if constexpr (sizeof(Value) == 2) {
                value = ktpacketGetWORD(item.pValue);
            } else {
                value = ktpacketGetDWORD(item.pValue);
            }
        },
        row.member);
}

void noteItem(const KTPacketItem &item, std::span<const Item> rows, AirRecord *pRecord) {
    for (const Item &row : rows) {
        if (row.usTag == item.usTag) {
            storeItem(row, item, pRecord);
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

// An announcement has one CRC or two. The first item is the CRC of the items behind it: of all of them, or of
// those before the station file's CRC. The station file's CRC is that of its bytes.
void checkAnnouncement(const unsigned char *pPayload, unsigned long ulLength, AirRecord *pRecord) {
    KTPacketItem first{};
    KTPacketItem stationCheck{};
    unsigned long ulOffset = 0;
    unsigned long ulCoverEnd = ulLength;
    if (!ktpacketNextItem(pPayload, ulLength, &ulOffset, &first) || first.usTag != wire::announcement::kCRC) {
        pRecord->sProblems.emplace_back("it does not begin with its CRC");
        return;
    }
    const unsigned long ulCoverBegin = ulOffset;
    KTPacketItem item{};
    for (unsigned long ulItem = ulOffset; ktpacketNextItem(pPayload, ulLength, &ulOffset, &item);
         ulItem = ulOffset) {
        if (item.usTag == wire::announcement::kStationCRC) {
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
    record.uiIdent = frame.uiIdent;
    record.uiService = frame.uiService;
    record.uiCommand = frame.uiCommand;
    record.uiSendTime = frame.uiParam;
    const FrameKind *const pKind = findKind(frame);
    if (pKind == nullptr) {
        record.eKind = AIR_UNKNOWN;
        record.sProblems.emplace_back("a frame that is neither an announcement nor a message");
        return record;
    }
    record.eKind = pKind->eKind;

    const bool bMessage = record.eKind == AIR_MESSAGE;
    KTPacketItem item{};
    unsigned long ulOffset = 0;
    while (ktpacketNextItem(frame.pPayload, frame.uiPayloadLen, &ulOffset, &item)) {
        noteItem(item, pKind->items, &record);
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
    case BCI_TYPE_STREAM:
        return "stream";
    case BCI_TYPE_FILE:
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
    case BCI_FORMAT_H264:
        return "H.264";
    case BCI_FORMAT_ASF:
        return "ASF";
    default:
        std::snprintf(aText.data(), aText.size(), "0x%x", *record.uiFormat);
        return aText.data();
    }
}
