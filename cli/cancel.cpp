// pccast cancel - takes a message back.
#include "command.h"
#include "commands.h"
#include "revoke.h"
#include "submit.h"
#include "viewclient.h"

#include <vexa_pgl.h>

#include <memory>

namespace {

struct CancelOptions {
    std::string sIdentity;
    bool bPriority = false;
    ServiceOptions service;
};

// Looks for the message, in either list. Returns EXIT_DONE with the list that holds it, or EXIT_BAD_DATA.
int findMessage(const Json &view, MessageIdentity *pIdentity, unsigned long *pulRequest) {
    for (const bool bPriority : {pIdentity->bPriority, !pIdentity->bPriority}) {
        MessageIdentity identity = *pIdentity;
        identity.bPriority = bPriority;
        for (const Json &request : view.value("requests", Json::array())) {
            if (textAt(request, "kind") == "message" &&
                textAt(request, "identity") == writeMessageIdentity(identity)) {
                *pIdentity = identity;
                *pulRequest = numberAt(request, "request");
                return EXIT_DONE;
            }
        }
    }
    return sayAndReturn(EXIT_BAD_DATA,
                        "there is no such message, or it is over; nothing was sent (pccast list shows what "
                        "there is)");
}

// Sends the request and says what it has done.
int cancelMessage(const Service &service, const MessageIdentity &identity, const Json *pView,
                  unsigned long ulRequest) {
    // A cancel request needs a text too; any text will do.
    const int iExit = submitMessage(service, PCMBC_CMD_CANCEL, identity, 1, "cancel");
    if (iExit != EXIT_DONE || pView == nullptr) {
        return iExit == EXIT_DONE ? sayAndReturn(EXIT_DONE, "cancel requested") : iExit;
    }
    Json event;
    unsigned long ulAfter = numberAt(*pView, "events");
    const Revocation revocation{"cancel", writeMessageIdentity(identity), ulRequest};
    switch (awaitRevocation(revocation, &ulAfter, &event)) {
    case REVOKE_MET:
        return sayAndReturn(EXIT_DONE, "cancelled: message " + textAt(event, "identity"));
    case REVOKE_SILENT:
        return sayAndReturn(EXIT_NO_WORD, "the service has not said whether the message is cancelled");
    default:
        return sayAndReturn(EXIT_BAD_DATA, "the message came to its end meanwhile");
    }
}

int cancel(const CancelOptions &options) {
    MessageIdentity identity{};
    Service service{};
    int iExit = checkArguments({{"IDENTITY", readMessageIdentity(options.sIdentity, &identity)}});
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    identity.bPriority = identity.bPriority || options.bPriority;
    if (identity.ulET <= vexa_time(nullptr)) {
        return sayAndReturn(EXIT_BAD_DATA, "that message ended by itself at " + writeTime(identity.ulET) +
                                               "; there is nothing left to cancel");
    }
    iExit = reachService(options.service, ServiceKind::Messages, &service);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    Json view;
    std::string sProblem;
    unsigned long ulRequest = 0;
    const ViewResult eResult = getView(&view, &sProblem);
    if (eResult != VIEW_ANSWERED) {
        sayAndReturn(EXIT_DONE, (eResult == VIEW_ABSENT ? "this service's host has no view" : sProblem) +
                                    ", so what becomes of the request is not told");
    } else {
        iExit = findMessage(view, &identity, &ulRequest);
    }
    return iExit == EXIT_DONE
               ? cancelMessage(service, identity, eResult == VIEW_ANSWERED ? &view : nullptr, ulRequest)
               : iExit;
}

} // namespace

void addCancelCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "cancel", "take a message back");
    auto options = std::make_shared<CancelOptions>();
    command.option("IDENTITY", options->sIdentity, "the line that message printed").type("").required();
    command.flag("--priority", options->bPriority,
                 "it was a priority message; not needed when IDENTITY ends in :priority");
    addServiceOptions(command, options->service);
    command.footer(helpExample("pccast cancel 1:1790000000:1790000000:1790000600:priority"));
    setRequestAction(
        command, [options] { return cancel(*options); }, iExitCode);
}
