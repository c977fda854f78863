#include "airtext.h"

#include "clitext.h"
#include "json.h"
#include "safetext.h"
#include "wire.h"

#include <pccast/castinfo.h>

#include <array>
#include <variant>

namespace {

// The kinds in the order of AirKind: as a line says them, and as an object does.
struct KindText {
    const char *pszLine;
    const char *pszJSON;
};
constexpr std::array<KindText, 5> kKindTexts{{
    {"BROKEN", "broken"},
    {"UNKNOWN", "unknown"},
    {"ON AIR", "on-air"},
    {"ENDED", "end"},
    {"MESSAGE", "message"},
}};

// What an object says of a record, in this order. A member without a value is left out.
struct Key {
    const char *pszName;
    std::variant<std::optional<unsigned int> AirRecord::*, std::optional<unsigned short> AirRecord::*,
                 std::optional<std::string> AirRecord::*, AirCheck AirRecord::*>
        member;
};
constexpr std::array<Key, 15> kKeys{{
    {"epg", &AirRecord::uiEPGID},
    {"type", &AirRecord::uiType},
    {"format", &AirRecord::uiFormat},
    {"start", &AirRecord::uiST},
    {"end", &AirRecord::uiET},
    {"address", &AirRecord::sAddress},
    {"port", &AirRecord::usPort},
    {"crcOk", &AirRecord::eCheck},
    {"stationCrcOk", &AirRecord::eStationCheck},
    {"station", &AirRecord::sStation},
    {"messageSent", &AirRecord::uiMessageTime},
    {"showings", &AirRecord::usShowings},
    {"attribute1", &AirRecord::uiAttr1},
    {"attribute3", &AirRecord::uiAttr3},
    {"text", &AirRecord::sText},
}};

std::string checkText(AirCheck eCheck, const char *pszWhat) {
    switch (eCheck) {
    case AIR_CHECK_GOOD:
        return std::string("  ") + pszWhat + " ok";
    case AIR_CHECK_WRONG:
        return std::string("  ") + pszWhat + " WRONG";
    default:
        return {};
    }
}

std::string announcementLine(const AirRecord &record, unsigned long ulNow) {
    std::string sLine =
        "epg " + std::to_string(*record.uiEPGID) + "  " + airTypeText(record) + "  " + airFormatText(record);
    const std::string sDestination = airDestination(record);
    if (!sDestination.empty()) {
        sLine += "  to " + sDestination;
    }
    if (record.uiST) {
        sLine += "  from " + writeTime(*record.uiST);
    }
    if (record.uiET) {
        sLine += "  until " + writeTime(*record.uiET);
        if (*record.uiET > ulNow) {
            sLine += "  left " + writeTimeLeft(*record.uiET - ulNow);
        }
    }
    sLine += checkText(record.eCheck, "crc") + checkText(record.eStationCheck, "station crc");
    return sLine;
}

// Sets the key, unless there is no value. A text that is no UTF-8 follows once more as hexadecimal digits.
void setKey(Json *pObject, const char *pszName, AirCheck eCheck) {
    if (eCheck != AIR_CHECK_ABSENT) {
        (*pObject)[pszName] = eCheck == AIR_CHECK_GOOD;
    }
}

template <typename Number>
void setKey(Json *pObject, const char *pszName, const std::optional<Number> &value) {
    if (value) {
        (*pObject)[pszName] = *value;
    }
}

void setKey(Json *pObject, const char *pszName, const std::optional<std::string> &sValue) {
    if (!sValue) {
        return;
    }
    (*pObject)[pszName] = *sValue;
    if (!isUTF8(*sValue)) {
        (*pObject)[std::string(pszName) + "Hex"] = textAsHex(*sValue);
    }
}

} // namespace

std::string airIdentity(const AirRecord &record) {
    if (record.eKind != AIR_ANNOUNCEMENT || !record.uiType || !record.uiFormat || !record.uiST ||
        !record.uiET || !record.usPort) {
        return {};
    }
    const bool bH264 = *record.uiFormat == BCI_FORMAT_H264;
    const bool bASF = *record.uiFormat == BCI_FORMAT_ASF;
    return writeCastIdentity({*record.uiEPGID,
                              *record.uiType == BCI_TYPE_FILE ? CAST_TYPE_FILE : CAST_TYPE_STREAM,
                              *record.uiST, *record.uiET, *record.usPort,
                              bH264  ? CAST_FORMAT_TS
                              : bASF ? CAST_FORMAT_ASF
                                     : *record.uiFormat});
}

std::string airDestination(const AirRecord &record) {
    if (record.sAddress) {
        return textForTerminal(*record.sAddress) + ":" +
               (record.usPort ? std::to_string(*record.usPort) : "?");
    }
    return record.sStation ? "the station's group" : "";
}

std::string airLine(const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    std::string sLine = writeTime(ulNow) + "  " + kKindTexts[record.eKind].pszLine + "  ";
    if (record.eKind == AIR_ANNOUNCEMENT || record.eKind == AIR_END) {
        const std::string sIdentity = airIdentity(record);
        sLine += announcementLine(record, ulNow) + "  " + (sIdentity.empty() ? "" : sIdentity + "  ");
    } else if (record.eKind == AIR_MESSAGE) {
        sLine += "\"" + textForTerminal(*record.sText) + "\"" +
                 (record.uiET ? "  until " + writeTime(*record.uiET) : "") + "  ";
    }
    sLine += "by " + sSender;
    for (const std::string &sProblem : record.sProblems) {
        sLine += "  [" + sProblem + "]";
    }
    return sLine;
}

std::string airJSON(const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    Json object{{"heard", ulNow}, {"by", sSender}, {"kind", kKindTexts[record.eKind].pszJSON}};
    if (record.uiIdent != 0 || record.uiService != 0) {
        object["ident"] = record.uiIdent;
        object["service"] = record.uiService;
        object["command"] = record.uiCommand;
        object["sent"] = record.uiSendTime;
    }
    for (const Key &key : kKeys) {
        std::visit([&](auto member) { setKey(&object, key.pszName, record.*member); }, key.member);
    }
    if (const std::string sIdentity = airIdentity(record); !sIdentity.empty()) {
        object["identity"] = sIdentity;
    }
    if (!record.sProblems.empty()) {
        object["problems"] = record.sProblems;
    }
    return writeJSON(object);
}
