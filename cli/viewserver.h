// viewserver.h - answers at the view socket what the service does, as HTTP/1.1 with JSON.
//
//   GET /v1/view
//   GET /v1/events?after=NUMBER&wait=SECONDS
//   GET /v1/history?since=SECONDS&epg=NUMBER&after=ID     when a state is kept
//
// When a state is kept, an event is told only after it is in the file.
//
// Made by serve. One thread of its own accepts, reads, answers and sends, and waits for none of its clients.
// So no number of them takes more than this thread from the service. A client that is silent or slow is
// closed after 5 s; one that sends no request, or too long a one, at once.
#ifndef PCCAST_CLI_VIEWSERVER_H
#define PCCAST_CLI_VIEWSERVER_H

#include "json.h"
#include "pluginloader.h"
#include "statestore.h"

#include <memory>

// What is kept of the service's state, as far as the view tells of it. Called by the view server's thread.
class KeptState {
public:
    virtual ~KeptState() = default;

    // The number of the last event that may be told.
    virtual unsigned long lastTold() const = 0;
    // The view's part about it. ulEvents: number of the last event.
    virtual Json status(unsigned long ulEvents) const = 0;
    // Returns what Store::history does. Throws StoreError.
    virtual Json history(const HistoryQuery &query) const = 0;
};

class ViewServer {
public:
    // pState: null when no state is kept. It outlives this.
    ViewServer(const Plugin &plugin, const KeptState *pState);
    ~ViewServer();
    ViewServer(const ViewServer &) = delete;
    ViewServer &operator=(const ViewServer &) = delete;

    // Listens and starts the thread. The plug-in may be open or not. Returns false when the socket cannot be
    // had; the reason is on standard error.
    bool start();
    // The service is about to be closed. Its last events can be read for a moment only, so look more often.
    void hurry();
    // Gives those who wait for events what there is, and ends. The socket file is gone then. Takes at most a
    // second.
    void stop();

private:
    struct Work;
    std::unique_ptr<Work> pWork;
};

#endif
