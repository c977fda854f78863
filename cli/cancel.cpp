// pccast cancel - takes a message back.
#include "commands.h"
#include "submit.h"

#include <CLI/CLI.hpp>
#include <vexa_pgl.h>

#include <memory>

namespace {

struct CancelOptions {
    std::string sIdentity;
    bool bPriority = false;
    ServiceOptions service;
};

int cancel(const CancelOptions &options) {
    MessageIdentity identity{};
    Service service{};
    int iExit = checkArguments({{"IDENTITY", readMessageIdentity(options.sIdentity, &identity)}});
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (identity.ulET <= vexa_time(nullptr)) {
        return sayAndReturn(EXIT_BAD_DATA, "that message ended by itself at " + writeTime(identity.ulET) +
                                               "; there is nothing left to cancel");
    }
    iExit = reachService(options.service, ServiceKind::Messages, &service);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    // A cancel looks only in the list that holds the message. It needs a text too; any text will do.
    identity.bPriority = identity.bPriority || options.bPriority;
    iExit = submitMessage(service, PCMBC_CMD_CANCEL, identity, 1, "cancel");
    return iExit == EXIT_DONE ? sayAndReturn(EXIT_DONE, "cancel requested") : iExit;
}

} // namespace

void addCancelCommand(CLI::App &app, int &iExitCode) {
    auto *const pCommand = app.add_subcommand("cancel", "take a message back");
    auto options = std::make_shared<CancelOptions>();
    pCommand->add_option("IDENTITY", options->sIdentity, "the line that message printed")
        ->type_name("")
        ->required();
    pCommand->add_flag("--priority", options->bPriority,
                       "it was a priority message; not needed when IDENTITY ends in :priority");
    addServiceOptions(pCommand, options->service);
    pCommand->footer(helpExample("pccast cancel 1:1790000000:1790000000:1790000600:priority"));
    setRequestAction(
        pCommand, [options] { return cancel(*options); }, iExitCode);
}
