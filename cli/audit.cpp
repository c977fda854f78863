#include "audit.h"

#include "listtext.h"
#include "viewjson.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

namespace {

constexpr std::chrono::milliseconds kLook{50};
constexpr std::chrono::milliseconds kHurriedLook{1};

// Whether the system's journal reads standard output. It then takes a priority in front of each line.
bool isJournal() {
    const char *const pszStream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return pszStream != nullptr && fstat(STDOUT_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == pszStream;
}

// As syslog counts them: 3 an error, 4 a warning, 6 information.
const char *priorityOf(const PCCASTEvent &event) {
    switch (event.uiKind) {
    case PCCAST_EVENT_FAILED:
    case PCCAST_EVENT_DROPPED:
        return "<3>";
    case PCCAST_EVENT_REFUSED:
    case PCCAST_EVENT_EXPIRED:
    case PCCAST_EVENT_SILENT:
        return "<4>";
    case PCCAST_EVENT_ENDED:
        return event.uiReason == PCCAST_REASON_SOURCE_LOST || event.uiReason == PCCAST_REASON_SEND ? "<3>"
                                                                                                   : "<6>";
    default:
        return "<6>";
    }
}

} // namespace

Audit::Audit(const Plugin &loaded) : plugin(loaded), thread([this] { run(); }) {}

Audit::~Audit() {
    stop();
}

void Audit::hurry() {
    bHurry = true;
}

void Audit::stop() {
    bStop = true;
    if (thread.joinable()) {
        thread.join();
    }
}

void Audit::run() {
    const bool bJournal = isJournal();
    const auto write = [bJournal](const char *pszPriority, const std::string &sText) {
        std::printf("%spccast: audit: %s\n", bJournal ? pszPriority : "", sText.c_str());
    };
    std::array<PCCASTEvent, 64> aEvents{};
    EventMemory memory;
    unsigned long ulLast = 0;
    for (;;) {
        const bool bLast = bStop;
        const int iCount = plugin.pReadEvents(ulLast, aEvents.data(), static_cast<int>(aEvents.size()));
        for (int i = 0; i < iCount; ++i) {
            const PCCASTEvent &event = aEvents[static_cast<size_t>(i)];
            try {
                if (event.ulNumber > ulLast + 1) {
                    write("<4>", lostText(event.ulNumber - ulLast - 1));
                }
                write(priorityOf(event), eventText(eventJSON(event), &memory));
            } catch (const std::bad_alloc &) { // this line is lost; the next one may not be
            }
            ulLast = event.ulNumber;
        }
        plugin.pEliminateEvents(aEvents.data(), iCount);
        if (iCount == 0) {
            if (bLast) {
                return;
            }
            std::this_thread::sleep_for(bHurry ? kHurriedLook : kLook);
        }
    }
}
