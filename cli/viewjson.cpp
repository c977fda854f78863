#include "viewjson.h"

#include "clitext.h"
#include "safetext.h"

#include <array>
#include <string_view>

namespace {

constexpr std::array<const char *, 5> kPlaces{"", "waiting", "pending", "on-air", "over"};
constexpr std::array<const char *, 18> kEvents{
    "",      "filed",  "refused", "cancelled", "expired", "dropped", "started",  "returned", "preempted",
    "ended", "failed", "silent",  "heard",     "current", "sent",    "replaced", "finished", "done"};
constexpr std::array<const char *, 19> kReasons{
    "",        "end-time",    "stop",   "newer",       "source-lost", "file-end", "repeats",
    "closing", "send-failed", "source", "destination", "key",         "loop",     "file",
    "format",  "incomplete",  "memory", "lock",        "nothing"};
// The states of a thread from -1 on.
constexpr std::array<const char *, 6> kThreadStates{"failed", "idle",     "running",
                                                    "ending", "stopping", "stopped"};

template <size_t Count>
const char *nameOf(const std::array<const char *, Count> &names, size_t uNumber) {
    return uNumber < Count ? names[uNumber] : "unknown";
}

// Sets the key unless there is nothing to say.
void setUnlessZero(Json *pObject, const char *pszKey, unsigned long ulValue) {
    if (ulValue != 0) {
        (*pObject)[pszKey] = ulValue;
    }
}

void setEndpoint(Json *pObject, const char *pszKey, const char *pszAddress, unsigned short usPort) {
    if (pszAddress != nullptr) {
        (*pObject)[pszKey] = std::string(pszAddress) + ":" + std::to_string(usPort);
    }
}

bool isFile(const CASTInfo &cast) {
    return cast.ulCASTType == CAST_TYPE_FILE;
}

} // namespace

const char *eventName(unsigned int uiKind) {
    return nameOf(kEvents, uiKind);
}

const char *reasonName(unsigned int uiReason) {
    return nameOf(kReasons, uiReason);
}

const char *kindOf(const CASTInfo &cast) {
    if (cast.ulCMD == CAST_CMD_STOP) {
        return "stop";
    }
    if (cast.ulCMD != CAST_CMD_START || cast.ulCASTType < CAST_TYPE_FILE ||
        cast.ulCASTType > CAST_TYPE_STREAM_2) {
        return "other";
    }
    return isFile(cast) ? "file" : "relay";
}

const char *kindOf(const MSGInfo &message) {
    if (message.ulCMD == PCMBC_CMD_CANCEL) {
        return "cancel";
    }
    return message.ulCMD == PCMBC_CMD_MSG ? "message" : "other";
}

std::string identityOf(const CASTInfo &cast) {
    return writeCastIdentity(
        {cast.uliEPGID, cast.ulCASTType, cast.ulST, cast.ulET, cast.usDSTPort, cast.ulSTREAMFormat});
}

std::string identityOf(const MSGInfo &message) {
    return writeMessageIdentity(
        {message.uliEPGID, message.ulCT, message.ulST, message.ulET, message.ulPriority == 1});
}

namespace {

// What every mention of a request says.
template <typename Record>
void setHead(Json *pObject, const Record &record) {
    (*pObject)["kind"] = kindOf(record);
    (*pObject)["epg"] = record.uliEPGID;
    (*pObject)["identity"] = identityOf(record);
}

void setRest(Json *pObject, const CASTInfo &cast) {
    Json &object = *pObject;
    if (isFile(cast)) {
        if (cast.pCASTFile != nullptr) {
            object["file"] = cast.pCASTFile;
        }
    } else {
        setEndpoint(pObject, "source", cast.pSRCIP, cast.usSRCPort);
    }
    setEndpoint(pObject, "destination", cast.pDSTIP, cast.usDSTPort);
    object["format"] = writeFormat(cast.ulSTREAMFormat);
    // A file's record may have the type of the request before it: a file request does not send one.
    object["encrypted"] = !isFile(cast) && (cast.iEncryptionType == CAST_ENCRYPTION_SEED ||
                                            cast.iEncryptionType == CAST_ENCRYPTION_FAST_SEED);
}

void setRest(Json *pObject, const MSGInfo &message) {
    Json &object = *pObject;
    const std::string_view sText = message.pMSGSTR == nullptr ? "" : message.pMSGSTR;
    object["priority"] = message.ulPriority;
    object["repeats"] = message.ulRepeat;
    object["text"] = textFront(sText, kViewTextMax);
    object["text_bytes"] = sText.size();
}

template <typename Record>
void setRequest(Json *pObject, const Record &record) {
    setHead(pObject, record);
    (*pObject)["created"] = record.ulCT;
    (*pObject)["start"] = record.ulST;
    (*pObject)["end"] = record.ulET;
    setRest(pObject, record);
}

Json relayJSON(const PCCASTTraffic &traffic) {
    Json object{{"datagrams", traffic.ulDatagrams},
                {"bytes", traffic.ulBytes},
                {"failed", traffic.ulFailed},
                {"dropped", traffic.ulDropped},
                {"silence", traffic.ulSilence}};
    setUnlessZero(&object, "silent_since", traffic.ulSilentSince);
    setUnlessZero(&object, "last_arrival", traffic.ulLastArrival);
    object["datagrams_per_second"] = traffic.ulDatagramsPerSecond;
    object["bytes_per_second"] = traffic.ulBytesPerSecond;
    return object;
}

Json playoutJSON(const PCCASTTraffic &traffic) {
    Json object{{"datagrams", traffic.ulDatagrams},
                {"bytes", traffic.ulBytes},
                {"failed", traffic.ulFailed},
                {"position_ms", traffic.ulPositionMs}};
    setUnlessZero(&object, "length_ms", traffic.ulLengthMs);
    object["late"] = traffic.ulLate;
    return object;
}

// The traffic with the number of its request in front.
Json withRequest(unsigned long ulRequest, const Json &traffic) {
    Json object = Json::object();
    setUnlessZero(&object, "request", ulRequest);
    object.update(traffic);
    return object;
}

Json senderJSON(const PCCASTViewSender &sender) {
    Json object{{"sent", sender.ulSent}, {"failed", sender.ulFailed}};
    setUnlessZero(&object, "last", sender.ulLast);
    return object;
}

Json requestJSON(const PCCASTViewRequest &request) {
    Json object{{"request", request.ulRequest},
                {"place", nameOf(kPlaces, request.uiPlace)},
                {"filed", request.ulFiled}};
    setUnlessZero(&object, "started", request.ulStarted);
    setUnlessZero(&object, "preempted_by", request.ulPreemptedBy);
    if (request.pCast != nullptr) {
        setRequest(&object, *request.pCast);
    } else if (request.pMessage != nullptr) {
        object["repeats_left"] = request.ulRepeatsLeft;
        setRequest(&object, *request.pMessage);
    }
    return object;
}

} // namespace

Json viewJSON(const PCCASTView &view) {
    Json object{{"time", view.ulTime},     {"since", view.ulSince},   {"events", view.ulEvents},
                {"lost", view.ulLost},     {"passes", view.ulPasses}, {"requests", Json::array()},
                {"threads", Json::array()}};
    for (int i = 0; i < view.iRequests; ++i) {
        object["requests"].push_back(requestJSON(view.pRequests[i]));
    }
    for (const PCCASTViewThread &thread : view.threads) {
        object["threads"].push_back(
            Json{{"name", thread.pszName == nullptr ? "" : thread.pszName},
                 {"state", nameOf(kThreadStates, static_cast<size_t>(thread.iState) + 1)},
                 {"alive", thread.iAlive == 1}});
    }
    object["relay"] = withRequest(view.ulRelay, relayJSON(view.relay));
    object["playout"] = withRequest(view.ulPlayout, playoutJSON(view.playout));
    object["announcements"] = senderJSON(view.announcements);
    object["broadcasts"] = senderJSON(view.broadcasts);
    return object;
}

Json eventJSON(const PCCASTEvent &event) {
    Json object{{"number", event.ulNumber},
                {"time", event.ulTime},
                {"milliseconds", event.uiMilliseconds},
                {"event", eventName(event.uiKind)}};
    if (event.uiReason != PCCAST_REASON_NONE) {
        object["reason"] = reasonName(event.uiReason);
    }
    setUnlessZero(&object, "request", event.ulRequest);
    if (event.pCast != nullptr) {
        setRequest(&object, *event.pCast);
    } else if (event.pMessage != nullptr) {
        setRequest(&object, *event.pMessage);
        if (event.uiKind == PCCAST_EVENT_SENT) {
            object["repeats_left"] = event.ulRepeatsLeft;
        }
    }
    if (event.ulOther != 0) {
        Json other{{"request", event.ulOther}};
        if (event.pOtherCast != nullptr) {
            setHead(&other, *event.pOtherCast);
        } else if (event.pOtherMessage != nullptr) {
            setHead(&other, *event.pOtherMessage);
        }
        object["other"] = std::move(other);
    }
    const bool bOffAir = event.uiKind == PCCAST_EVENT_PREEMPTED || event.uiKind == PCCAST_EVENT_ENDED ||
                         event.uiKind == PCCAST_EVENT_FAILED;
    if (event.pCast != nullptr && bOffAir) {
        object["traffic"] = isFile(*event.pCast) ? playoutJSON(event.traffic) : relayJSON(event.traffic);
    }
    return object;
}
