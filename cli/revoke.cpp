#include "revoke.h"

#include "viewclient.h"

#include <array>
#include <chrono>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{5};  // for the request to be taken up
constexpr std::chrono::seconds kTimeToAct{2}; // from then on; a relay takes up to a second to leave the air

// The events after which a request is over.
constexpr std::array<const char *, 7> kLast{"refused", "cancelled", "expired", "dropped",
                                            "ended",   "failed",    "finished"};

bool isLast(const std::string &sEvent) {
    for (const char *pszLast : kLast) {
        if (sEvent == pszLast) {
            return true;
        }
    }
    return false;
}

bool isItself(const Revocation &revocation, const Json &object) {
    return textAt(object, "kind") == revocation.sKind && textAt(object, "identity") == revocation.sIdentity;
}

// Returns true when the event answers the question; then *peResult has the answer.
bool judge(const Revocation &revocation, const Json &event, RevokeResult *peResult) {
    const std::string sEvent = textAt(event, "event");
    const auto other = event.find("other");
    if (other != event.end() && isItself(revocation, *other) &&
        (sEvent == "cancelled" || sEvent == "ended")) {
        *peResult = REVOKE_MET;
        return true;
    }
    if (isItself(revocation, event) &&
        (isLast(sEvent) || (sEvent == "done" && textAt(event, "reason") == "nothing"))) {
        *peResult = REVOKE_VOID;
        return true;
    }
    if (numberAt(event, "request") == revocation.ulTarget && isLast(sEvent)) {
        *peResult = REVOKE_LATE;
        return true;
    }
    return false;
}

} // namespace

RevokeResult awaitRevocation(const Revocation &revocation, unsigned long *pulAfter, Json *pEvent) {
    Clock::time_point end = Clock::now() + kPatience;
    while (Clock::now() < end) {
        Json answer;
        std::string sProblem;
        if (getEvents(*pulAfter, 1, &answer, &sProblem) != VIEW_ANSWERED) {
            return REVOKE_SILENT;
        }
        for (const Json &event : answer.value("events", Json::array())) {
            RevokeResult eResult = REVOKE_SILENT;
            *pulAfter = numberAt(event, "number");
            if (judge(revocation, event, &eResult)) {
                *pEvent = event;
                return eResult;
            }
            if (isItself(revocation, event)) {
                end = Clock::now() + kTimeToAct;
            }
        }
        *pulAfter = numberAt(answer, "last");
    }
    return REVOKE_SILENT;
}
