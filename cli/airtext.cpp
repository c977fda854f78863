#include "airtext.h"

#include "clitext.h"
#include "safetext.h"

#include <array>
#include <cstdio>

namespace {

constexpr std::array<const char *, 5> kKindWords{"BROKEN", "UNKNOWN", "ON AIR", "ENDED", "MESSAGE"};
constexpr std::array<const char *, 5> kKindNames{"broken", "unknown", "on-air", "end", "message"};

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

void addNumber(std::string *psJSON, const char *pszName, const std::optional<unsigned int> &uiValue) {
    if (uiValue) {
        *psJSON += std::string(",\"") + pszName + "\":" + std::to_string(*uiValue);
    }
}

void addText(std::string *psJSON, const char *pszName, const std::optional<std::string> &sValue) {
    if (!sValue) {
        return;
    }
    *psJSON += std::string(",\"") + pszName + "\":" + textForJSON(*sValue);
    if (!isUTF8(*sValue)) {
        *psJSON += std::string(",\"") + pszName + "Hex\":\"" + textAsHex(*sValue) + "\"";
    }
}

void addCheck(std::string *psJSON, const char *pszName, AirCheck eCheck) {
    if (eCheck != AIR_CHECK_ABSENT) {
        *psJSON += std::string(",\"") + pszName + "\":" + (eCheck == AIR_CHECK_GOOD ? "true" : "false");
    }
}

} // namespace

std::string airDestination(const AirRecord &record) {
    if (record.sAddress) {
        return textForTerminal(*record.sAddress) + ":" +
               (record.uiPort ? std::to_string(*record.uiPort) : "?");
    }
    return record.sStation ? "the station's group" : "";
}

std::string airLine(const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    std::string sLine = writeTime(ulNow) + "  " + kKindWords[record.eKind] + "  ";
    if (record.eKind == AIR_ANNOUNCEMENT || record.eKind == AIR_END) {
        sLine += announcementLine(record, ulNow) + "  ";
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
    std::string sJSON = "{\"heard\":" + std::to_string(ulNow) + ",\"by\":" + textForJSON(sSender) +
                        ",\"kind\":\"" + kKindNames[record.eKind] + "\"";
    if (record.uiIdent != 0 || record.uiService != 0) {
        sJSON += ",\"ident\":" + std::to_string(record.uiIdent) +
                 ",\"service\":" + std::to_string(record.uiService) +
                 ",\"command\":" + std::to_string(record.uiCommand) +
                 ",\"sent\":" + std::to_string(record.uiSendTime);
    }
    addNumber(&sJSON, "epg", record.uiEPGID);
    addNumber(&sJSON, "type", record.uiType);
    addNumber(&sJSON, "format", record.uiFormat);
    addNumber(&sJSON, "start", record.uiST);
    addNumber(&sJSON, "end", record.uiET);
    addText(&sJSON, "address", record.sAddress);
    addNumber(&sJSON, "port", record.uiPort);
    addCheck(&sJSON, "crcOk", record.eCheck);
    addCheck(&sJSON, "stationCrcOk", record.eStationCheck);
    addText(&sJSON, "station", record.sStation);
    addNumber(&sJSON, "messageSent", record.uiMessageTime);
    addNumber(&sJSON, "showings", record.uiShowings);
    addNumber(&sJSON, "attribute1", record.uiAttr1);
    addNumber(&sJSON, "attribute3", record.uiAttr3);
    addText(&sJSON, "text", record.sText);
    if (!record.sProblems.empty()) {
        sJSON += ",\"problems\":[";
        for (size_t i = 0; i < record.sProblems.size(); ++i) {
            sJSON += (i == 0 ? "" : ",") + textForJSON(record.sProblems[i]);
        }
        sJSON += "]";
    }
    return sJSON + "}";
}
