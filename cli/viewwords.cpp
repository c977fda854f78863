#include "viewwords.h"

#include "clitext.h"
#include "safetext.h"

#include <algorithm>

namespace {

constexpr size_t kTextColumns = 60; // of a message

} // namespace

unsigned long numberOf(const Json &object, const char *pszKey) {
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_number_unsigned() ? found->get<unsigned long>() : 0;
}

std::string textOf(const Json &object, const char *pszKey) {
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_string() ? textForTerminal(found->get<std::string>()) : "";
}

const Json &partOf(const Json &object, const char *pszKey) {
    static const Json empty = Json::object();
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_structured() ? *found : empty;
}

bool hasPlace(const Json &request, const char *pszPlace) {
    return textOf(request, "place") == pszPlace;
}

bool isOfMessages(const Json &request) {
    const std::string sKind = textOf(request, "kind");
    return sKind == "message" || sKind == "cancel";
}

std::string plural(unsigned long ulCount, const std::string &sOne) {
    return std::to_string(ulCount) + " " + sOne + (ulCount == 1 ? "" : "s");
}

void addPart(std::string *psText, const std::string &sPart) {
    if (!sPart.empty()) {
        *psText += (psText->empty() ? "" : ", ") + sPart;
    }
}

std::string timeFromMs(unsigned long ulMs) {
    return writeTimeLeft(ulMs / 1000);
}

std::string moment(unsigned long ulTime, unsigned long ulNow) {
    const std::string sTime = writeTime(ulTime);
    const size_t uDate = sizeof "YYYY-MM-DD" - 1;
    return sTime.substr(0, uDate) == writeTime(ulNow).substr(0, uDate) ? sTime.substr(uDate + 1) : sTime;
}

std::string shortNameOf(const Json &request) {
    return textOf(request, "kind") + " of EPG " + std::to_string(numberOf(request, "epg"));
}

std::string whatOf(const Json &request) {
    if (request.contains("text")) {
        return "\"" + textCut(textOf(request, "text"), kTextColumns) + "\"";
    }
    return request.contains("file") ? textOf(request, "file") : textOf(request, "source");
}

std::string routeOf(const Json &request) {
    const std::string sKind = textOf(request, "kind");
    if (sKind == "stop" || sKind == "cancel") {
        return "";
    }
    const std::string sDestination = textOf(request, "destination");
    return whatOf(request) + (sDestination.empty() ? "" : " -> " + sDestination);
}

std::string leftOf(const Json &request, const Json &view) {
    const unsigned long ulNow = numberOf(view, "time");
    if (!hasPlace(request, "on-air")) {
        return "";
    }
    if (request.contains("repeats") && numberOf(request, "repeats") != 0) {
        return std::to_string(numberOf(request, "repeats_left")) + " more";
    }
    const Json &playout = partOf(view, "playout");
    if (numberOf(playout, "request") == numberOf(request, "request") && playout.contains("length_ms")) {
        const unsigned long ulLength = numberOf(playout, "length_ms");
        return timeFromMs(ulLength - std::min(ulLength, numberOf(playout, "position_ms")));
    }
    const unsigned long ulEnd = numberOf(request, "end");
    return writeTimeLeft(ulEnd - std::min(ulEnd, ulNow));
}

std::string coloured(const std::string &sText, const char *pszColour, const Screen &screen) {
    return screen.bColour && pszColour != nullptr ? pszColour + sText + "\033[0m" : sText;
}

std::string padded(const std::string &sText, size_t uWidth) {
    const std::string sCut = textCut(sText, uWidth);
    return sCut + std::string(uWidth - textColumns(sCut), ' ');
}
