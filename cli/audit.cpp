#include "audit.h"

#include "eventtext.h"
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

std::atomic<bool> gJournal{false}; // written by noteJournal before any thread writes a line

AuditPriority priorityOf(const PCCASTEvent &event) {
    switch (event.uiKind) {
    case PCCAST_EVENT_FAILED:
    case PCCAST_EVENT_DROPPED:
        return AUDIT_ERROR;
    case PCCAST_EVENT_REFUSED:
    case PCCAST_EVENT_EXPIRED:
    case PCCAST_EVENT_SILENT:
        return AUDIT_WARNING;
    case PCCAST_EVENT_ENDED:
        return event.uiReason == PCCAST_REASON_SOURCE_LOST || event.uiReason == PCCAST_REASON_SEND
                   ? AUDIT_ERROR
                   : AUDIT_NOTE;
    default:
        return AUDIT_NOTE;
    }
}

} // namespace

void noteJournal() {
    const char *const pszStream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    gJournal = pszStream != nullptr && fstat(STDOUT_FILENO, &status) == 0 &&
               std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == pszStream;
}

void writeAudit(AuditPriority ePriority, const std::string &sText) {
    const std::string sPriority = gJournal ? "<" + std::to_string(ePriority) + ">" : "";
    std::printf("%spccast: audit: %s\n", sPriority.c_str(), sText.c_str());
}

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
                    writeAudit(AUDIT_WARNING, lostText(event.ulNumber - ulLast - 1));
                }
                writeAudit(priorityOf(event), eventText(eventJSON(event), &memory));
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
