#include "eventtext.h"

#include "clitext.h"
#include "viewwords.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

struct Reason {
    const char *pszReason;
    const char *pszText; // "by" and "for": the other request follows
};
constexpr std::array<Reason, 18> kReasons{{
    {"end-time", "its end time has come"},
    {"stop", "by"},
    {"newer", "for"},
    {"source-lost", "its source socket failed"},
    {"file-end", "the file has ended"},
    {"repeats", "sent as often as asked"},
    {"closing", "the service closes"},
    {"send-failed", "it could not be sent"},
    {"source", "its source cannot be opened"},
    {"destination", "its destination cannot be opened"},
    {"key", "it must be decrypted but brings no key"},
    {"loop", "it would feed itself"},
    {"file", "the file cannot be opened or played"},
    {"format", "no driver plays its format"},
    {"incomplete", "it is incomplete, or of an unknown type"},
    {"memory", "memory has run out"},
    {"lock", "the lock of its list could not be taken"},
    {"nothing", "it found nothing to end"},
}};

// "relay 7:2:...", of a request or of what caused an event.
std::string nameOf(const Json &request) {
    return textOf(request, "kind") + " " + textOf(request, "identity");
}

std::string trafficText(const Json &traffic) {
    std::string sText = plural(numberOf(traffic, "datagrams"), "datagram") + ", " +
                        plural(numberOf(traffic, "bytes"), "byte");
    for (const auto &[pszKey, pszWord] :
         {std::pair{"dropped", "dropped"}, {"failed", "not sent"}, {"late", "late"}}) {
        if (numberOf(traffic, pszKey) != 0) {
            sText += ", " + std::to_string(numberOf(traffic, pszKey)) + " " + pszWord;
        }
    }
    if (numberOf(traffic, "silence") != 0) {
        sText += ", silent for " + std::to_string(numberOf(traffic, "silence")) + " s";
    }
    if (traffic.contains("position_ms")) {
        sText += ", played " + timeFromMs(numberOf(traffic, "position_ms"));
        if (traffic.contains("length_ms")) {
            sText += " of " + timeFromMs(numberOf(traffic, "length_ms"));
        }
    }
    return sText;
}

// What follows the identity.
std::string eventDetails(const Json &event, EventMemory *pMemory) {
    const std::string sEvent = textOf(event, "event");
    const unsigned long ulTime = numberOf(event, "time");
    const unsigned long ulRequest = numberOf(event, "request");
    if (sEvent == "silent") {
        // The event comes after a second of silence.
        *pMemory = {ulRequest, ulTime - 1};
        return "silent since " + moment(ulTime - 1, ulTime) + ", nothing comes to " + textOf(event, "source");
    }
    if (sEvent == "heard") {
        return pMemory->ulRequest == ulRequest
                   ? "heard again after " + std::to_string(ulTime - pMemory->ulSilentSince) + " s"
                   : "heard again";
    }
    std::string sText;
    if (sEvent == "filed" || sEvent == "refused" || sEvent == "started" || sEvent == "returned" ||
        sEvent == "current") {
        sText = routeOf(event);
        if (sEvent == "filed" && numberOf(event, "start") > ulTime) {
            sText += " from " + moment(numberOf(event, "start"), ulTime);
        }
        sText += (sText.empty() ? "until " : " until ") + moment(numberOf(event, "end"), ulTime);
    }
    addPart(&sText, reasonText(event));
    if (sEvent == "sent") {
        const unsigned long ulLeft = numberOf(event, "repeats_left");
        addPart(&sText, numberOf(event, "repeats") == 0
                            ? "repeated until " + moment(numberOf(event, "end"), ulTime)
                            : std::to_string(ulLeft) + " more to come");
    }
    if (event.contains("traffic")) {
        addPart(&sText, trafficText(event["traffic"]));
    }
    return sText;
}

} // namespace

std::string eventText(const Json &event, EventMemory *pMemory) {
    const std::string sDetails = eventDetails(event, pMemory);
    return textOf(event, "event") + " " + nameOf(event) + (sDetails.empty() ? "" : "  " + sDetails);
}

std::string eventLine(const Json &event, EventMemory *pMemory) {
    const std::string sMilliseconds = std::to_string(1000 + numberOf(event, "milliseconds")).substr(1);
    return std::to_string(numberOf(event, "number")) + "  " + writeTime(numberOf(event, "time")) + "." +
           sMilliseconds + "  " + eventText(event, pMemory);
}

std::string reasonText(const Json &event) {
    const std::string sReason = textOf(event, "reason");
    const Json &other = partOf(event, "other");
    const auto found = std::find_if(kReasons.begin(), kReasons.end(),
                                    [&](const Reason &reason) { return sReason == reason.pszReason; });
    const std::string sText = found == kReasons.end() ? sReason : found->pszText;
    if (other.empty()) {
        return sText == "by" || sText == "for" ? sReason : sText;
    }
    return (sText.empty() ? "by" : sText) + " " + nameOf(other);
}

std::string lostText(unsigned long ulLost) {
    return plural(ulLost, "event") + (ulLost == 1 ? " is" : " are") + " missing here: no longer kept";
}
