// statekeeper.h - keeps the state of the service: writes it behind the events, and restores it at the start.
//
// Made by serve when there is --state. One thread reads the plug-in's events and writes each batch of them in
// one transaction. Nothing in the service waits for it. When the file fails, the keeper says so once, and
// tries again every few seconds; the service runs on.
//
// Restoring files every request again through the plug-in's senders, as any component would. Two threads do
// it, one for casts and one for messages.
#ifndef PCCAST_CLI_STATEKEEPER_H
#define PCCAST_CLI_STATEKEEPER_H

#include "json.h"
#include "pluginloader.h"
#include "viewserver.h"

#include <memory>
#include <string>

class StateKeeper : public KeptState {
public:
    // sFolder: where the file is. ulKeep: seconds that the history is kept.
    StateKeeper(const Plugin &plugin, const std::string &sFolder, unsigned long ulKeep);
    ~StateKeeper() override;
    StateKeeper(const StateKeeper &) = delete;
    StateKeeper &operator=(const StateKeeper &) = delete;

    // Opens the file and says what is wrong with it. Called before the plug-in is opened, so that whoever
    // asks early is told the truth.
    void open();
    // Starts to keep, and to restore. Called when the plug-in serves both sockets.
    void start();
    // Whether everything is restored that can be.
    bool isRestored() const;
    // The service is about to be closed: look for its last events more often, and restore no more.
    void hurry();
    // Writes what is left, and ends.
    void stop();

    // Any event may be told while the file fails.
    unsigned long lastTold() const override;
    // {"path", "ok", "error", "behind", "restored", "restoring"}
    Json status(unsigned long ulEvents) const override;
    Json history(const HistoryQuery &query) const override;

private:
    struct Work;
    std::unique_ptr<Work> pWork;
};

#endif
