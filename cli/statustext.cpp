#include "statustext.h"

#include "clitext.h"
#include "eventtext.h"
#include "listtext.h"

#include <algorithm>
#include <map>

namespace {

constexpr size_t kFailures = 5;
constexpr size_t kBarWidth = 24;

// "3.4 Mbit/s", of bytes in a second.
std::string bitRate(unsigned long ulBytes) {
    const unsigned long ulBits = ulBytes * 8;
    if (ulBits < 10'000) {
        return std::to_string(ulBits) + " bit/s";
    }
    if (ulBits < 10'000'000) {
        return std::to_string(ulBits / 1000) + " kbit/s";
    }
    return std::to_string(ulBits / 1'000'000) + "." + std::to_string(ulBits / 100'000 % 10) + " Mbit/s";
}

// What the relay on air brings just now, and what it has brought.
std::string rateLine(const Json &relay) {
    return std::to_string(numberOf(relay, "datagrams_per_second")) + " datagrams/s, " +
           bitRate(numberOf(relay, "bytes_per_second"));
}

std::string relayLine(const Json &relay) {
    std::string sLine = plural(numberOf(relay, "datagrams"), "datagram") + " in all, " +
                        std::to_string(numberOf(relay, "dropped")) + " dropped, " +
                        std::to_string(numberOf(relay, "failed")) + " not sent";
    if (const unsigned long ulSilence = numberOf(relay, "silence"); ulSilence != 0) {
        sLine += ", silent for " + std::to_string(ulSilence) + " s";
    }
    return sLine;
}

std::string playoutLine(const Json &playout) {
    return "at " + timeFromMs(numberOf(playout, "position_ms")) +
           (playout.contains("length_ms") ? " of " + timeFromMs(numberOf(playout, "length_ms")) : "") + ", " +
           plural(numberOf(playout, "datagrams"), "datagram") + ", " +
           std::to_string(numberOf(playout, "failed")) + " not sent, " +
           std::to_string(numberOf(playout, "late")) + " late";
}

// A bar, filled up to ulDone of ulAll: "[####----]  50%".
std::string progressBar(unsigned long ulDone, unsigned long ulAll) {
    const unsigned long ulReached = std::min(ulDone, ulAll);
    const size_t uFilled = ulAll == 0 ? 0 : kBarWidth * ulReached / ulAll;
    const std::string sPercent = std::to_string(ulAll == 0 ? 0 : 100 * ulReached / ulAll);
    return "[" + std::string(uFilled, '#') + std::string(kBarWidth - uFilled, '-') + "] " +
           std::string(3 - sPercent.size(), ' ') + sPercent + "%";
}

void addLine(std::vector<std::string> *pLines, const std::string &sText) {
    if (!sText.empty()) {
        pLines->push_back("    " + sText);
    }
}

void addOnAir(std::vector<std::string> *pLines, const Json &request, const Json &view, const Screen &screen) {
    const unsigned long ulNow = numberOf(view, "time");
    pLines->push_back("  " + coloured(shortNameOf(request), kGreen, screen) + "  " + routeOf(request));
    pLines->push_back("    until " + moment(numberOf(request, "end"), ulNow) + ", left " +
                      leftOf(request, view) + "  " + textOf(request, "identity"));
    const Json &relay = partOf(view, "relay");
    const bool bRelay = numberOf(relay, "request") == numberOf(request, "request");
    if (screen.bBar) {
        addLine(pLines, onAirBar(view, request));
    }
    if (bRelay) {
        const unsigned long ulSilent = numberOf(relay, "silent_since");
        addLine(pLines, ulSilent == 0 ? rateLine(relay)
                                      : coloured("silent since " + moment(ulSilent, ulNow), kRed, screen));
        addLine(pLines, relayLine(relay));
    } else if (numberOf(partOf(view, "playout"), "request") == numberOf(request, "request")) {
        addLine(pLines, playoutLine(partOf(view, "playout")));
    }
}

std::string senderLine(const char *pszName, const Json &sender, unsigned long ulNow) {
    const unsigned long ulLast = numberOf(sender, "last");
    return std::string("  ") + pszName + ": " + std::to_string(numberOf(sender, "sent")) + " sent, " +
           std::to_string(numberOf(sender, "failed")) + " failed" +
           (ulLast == 0 ? "" : ", the last at " + moment(ulLast, ulNow));
}

bool isFailure(const Json &event) {
    const std::string sEvent = textOf(event, "event");
    const std::string sReason = textOf(event, "reason");
    return sEvent == "failed" || sEvent == "dropped" || sEvent == "refused" || sEvent == "expired" ||
           sReason == "source-lost" || sReason == "send-failed";
}

// What is kept of the state.
std::string stateLine(const Json &view, const Screen &screen) {
    const Json &state = partOf(view, "state");
    const std::string sPath = textOf(state, "path");
    if (!state.value("ok", true)) {
        return coloured("NOTHING IS KEPT: " + sPath + ": " + textOf(state, "error"), kRed, screen);
    }
    std::string sLine = "kept in " + sPath;
    if (numberOf(state, "behind") != 0) {
        addPart(&sLine, plural(numberOf(state, "behind"), "event") + " behind");
    }
    if (state.contains("restoring")) {
        addPart(&sLine, "restored " + std::to_string(numberOf(state, "restored")) + " of " +
                            plural(numberOf(state, "restoring"), "request"));
    }
    return sLine;
}

} // namespace

std::vector<std::string> statusLines(const Json &view, const std::vector<Json> &events,
                                     const Screen &screen) {
    const unsigned long ulNow = numberOf(view, "time");
    const unsigned long ulSince = numberOf(view, "since");
    const auto heading = [&](const char *pszText) { return coloured(pszText, kBold, screen); };
    std::vector<std::string> onAir;
    std::vector<std::string> messages;
    std::map<std::string, unsigned long> waiting;
    for (const Json &request : listRequests(view)) {
        const bool bMessage = isOfMessages(request);
        if (hasPlace(request, "on-air") && !bMessage) {
            addOnAir(&onAir, request, view, screen);
        } else if (hasPlace(request, "on-air")) {
            messages.push_back("  " + coloured("on air", kGreen, screen) + "  " + routeOf(request));
            messages.push_back("    until " + moment(numberOf(request, "end"), ulNow) + ", left " +
                               leftOf(request, view) + "  " + textOf(request, "identity"));
        } else if (!hasPlace(request, "over")) {
            ++waiting[textOf(request, "kind")];
        }
    }
    std::string sWaiting;
    for (const auto &[sKind, ulCount] : waiting) {
        addPart(&sWaiting, plural(ulCount, sKind));
    }

    std::vector<std::string> lines{"since " + writeTime(ulSince) + ", for " +
                                       writeTimeLeft(ulNow - std::min(ulSince, ulNow)) + "; " +
                                       plural(numberOf(view, "events"), "event"),
                                   "", heading("ON AIR")};
    if (onAir.empty()) {
        onAir.emplace_back("  nothing");
    }
    lines.insert(lines.end(), onAir.begin(), onAir.end());
    lines.insert(lines.end(), {"", heading("MESSAGES")});
    if (messages.empty()) {
        messages.emplace_back("  none");
    }
    lines.insert(lines.end(), messages.begin(), messages.end());
    lines.insert(lines.end(), {"", heading("WAITING"), "  " + (sWaiting.empty() ? "nothing" : sWaiting)});
    lines.insert(lines.end(),
                 {"", heading("SENT"), senderLine("announcements", partOf(view, "announcements"), ulNow),
                  senderLine("broadcasts of messages", partOf(view, "broadcasts"), ulNow)});
    if (view.contains("state")) {
        lines.insert(lines.end(), {"", heading("STATE"), "  " + stateLine(view, screen)});
    }
    lines.insert(lines.end(), {"", heading("THREADS")});
    for (const Json &thread : partOf(view, "threads")) {
        const std::string sState = textOf(thread, "state");
        const bool bAlive = thread.value("alive", false);
        lines.push_back("  " + padded(textOf(thread, "name"), 24) + "  " +
                        coloured(bAlive ? sState : "does not run",
                                 !bAlive || sState == "failed" ? kRed : nullptr, screen));
    }
    lines.insert(lines.end(), {"", heading("LAST FAILURES")});
    EventMemory memory;
    std::vector<std::string> failures;
    for (const Json &event : events) {
        if (isFailure(event)) {
            failures.push_back("  " + moment(numberOf(event, "time"), ulNow) + "  " +
                               eventText(event, &memory));
        }
    }
    if (failures.empty()) {
        failures.emplace_back("  none among the events that are kept");
    }
    failures.erase(failures.begin(),
                   failures.end() - static_cast<long>(std::min(failures.size(), kFailures)));
    lines.insert(lines.end(), failures.begin(), failures.end());
    return lines;
}

std::string trafficLine(const Json &view, unsigned long ulRequest) {
    if (numberOf(partOf(view, "relay"), "request") == ulRequest) {
        const Json &relay = partOf(view, "relay");
        const unsigned long ulSilent = numberOf(relay, "silent_since");
        return (ulSilent == 0 ? rateLine(relay)
                              : "silent since " + moment(ulSilent, numberOf(view, "time"))) +
               ", " + relayLine(relay);
    }
    return numberOf(partOf(view, "playout"), "request") == ulRequest ? playoutLine(partOf(view, "playout"))
                                                                     : "";
}

std::string onAirBar(const Json &view, const Json &request) {
    const unsigned long ulNow = numberOf(view, "time");
    const unsigned long ulStart = numberOf(request, "started");
    const unsigned long ulEnd = numberOf(request, "end");
    const Json &playout = partOf(view, "playout");
    if (numberOf(playout, "request") == numberOf(request, "request")) {
        return playout.contains("length_ms")
                   ? progressBar(numberOf(playout, "position_ms"), numberOf(playout, "length_ms"))
                   : "";
    }
    return ulEnd > ulStart && ulNow >= ulStart ? progressBar(ulNow - ulStart, ulEnd - ulStart) : "";
}
