// audit.h - one line on standard output for each event of the service.
//
// Made by serve. A thread of its own reads the events and writes the lines. If the output takes none, it
// falls behind and nobody waits for it; a gap is then said.
#ifndef PCCAST_CLI_AUDIT_H
#define PCCAST_CLI_AUDIT_H

#include "pluginloader.h"

#include <atomic>
#include <string>
#include <thread>

// Notes whether the system's journal reads standard output. Called before something else takes its place.
void noteJournal();

// As syslog counts them.
enum AuditPriority { AUDIT_ERROR = 3, AUDIT_WARNING = 4, AUDIT_NOTE = 6 };

// Writes one line, "pccast: audit: TEXT". To the journal it goes with its priority. Any thread.
void writeAudit(AuditPriority ePriority, const std::string &sText);

class Audit {
public:
    explicit Audit(const Plugin &loaded);
    ~Audit();
    Audit(const Audit &) = delete;
    Audit &operator=(const Audit &) = delete;

    // The service is about to be closed. Its last events can be read for a moment only, so look more often.
    void hurry();
    // Writes what is left, and ends.
    void stop();

private:
    void run();

    Plugin plugin;
    std::atomic<bool> bHurry{false};
    std::atomic<bool> bStop{false};
    std::thread thread;
};

#endif
