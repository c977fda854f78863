// pccast message - submits a text for every receiver.
#include "command.h"
#include "commands.h"
#include "outcome.h"
#include "request.h"
#include "submit.h"

#include <algorithm>
#include <memory>

namespace {

constexpr unsigned long kRepeatMax = 65535;
constexpr unsigned long kShortestDefault = 600;
constexpr unsigned long kLongPause = 60;

struct MessageOptions {
    RequestOptions request;
    std::string sText;
    std::string sRepeat = "1";
    bool bPriority = false;
};

// Seconds without any message after each broadcast of the text: the pause of the service.
unsigned long pauseAfter(const std::string &sText) {
    return 7 + sText.size() / 5;
}

// Seconds that are enough for every broadcast.
unsigned long defaultFor(unsigned long ulRepeat, const std::string &sText) {
    return std::max(kShortestDefault, ulRepeat * pauseAfter(sText) + 60);
}

int message(const MessageOptions &options) {
    unsigned long ulRepeat = 0;
    RequestTimes times{};
    Service service{};
    int iExit = checkArguments({{"--repeat", readNumber(options.sRepeat, kRepeatMax, &ulRepeat)}});
    if (iExit == EXIT_DONE && options.sText.empty()) {
        iExit = sayAndReturn(EXIT_BAD_DATA, "TEXT is empty; the service would drop the message");
    }
    if (iExit == EXIT_DONE && options.sText.size() > PCMBC_TEXT_MAX) {
        iExit = sayAndReturn(EXIT_BAD_DATA, "TEXT has " + std::to_string(options.sText.size()) +
                                                " bytes; one datagram holds at most " +
                                                std::to_string(PCMBC_TEXT_MAX));
    }
    if (iExit == EXIT_DONE) {
        iExit = readRequestOptions(options.request, defaultFor(ulRepeat, options.sText), &times);
    }
    if (iExit == EXIT_DONE) {
        iExit = reachForRequest(options.request, defaultFor(ulRepeat, options.sText), ServiceKind::Messages,
                                &service, &times);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    const MessageIdentity identity{times.ulEPGID, times.ulCT, times.ulST, times.ulET, options.bPriority};
    EventPlace place{};
    iExit = rememberEvents(options.request.bFollow, &place);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    iExit = submitMessage(service, PCMBC_CMD_MSG, identity, ulRepeat, options.sText);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    printResult(writeMessageIdentity(identity));
    sayAndReturn(EXIT_DONE, "message requested from " + writeTime(times.ulST) + " until " +
                                writeTime(times.ulET) + "; pccast cancel takes the line above");
    if (pauseAfter(options.sText) > kLongPause) {
        sayAndReturn(EXIT_DONE, "after a text of " + std::to_string(options.sText.size()) +
                                    " bytes the service sends no other message for " +
                                    std::to_string(pauseAfter(options.sText)) + " s");
    }
    return tellOutcome(place, {"message", writeMessageIdentity(identity), identity.ulCT},
                       options.request.bFollow);
}

} // namespace

void addMessageCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "message", "show a text on every receiver");
    auto options = std::make_shared<MessageOptions>();
    command.option("TEXT", options->sText, "the text").type("").required();
    command.flag("--priority", options->bPriority, "put it ahead of all ordinary messages");
    command.option("--repeat", options->sRepeat, "how often it is sent; 0: until its end (default 1)")
        .type("N");
    addRequestOptions(command, options->request, "10m, longer for many repeats");
    command.footer("After each broadcast the service sends no message for 7 s, and 1 s more for every 5 "
                   "bytes of text.\nPrints the message's identity, which pccast cancel takes back.\n\n" +
                   helpExample("pccast message \"Fire drill at noon\" --priority --repeat 3"));
    setRequestAction(
        command, [options] { return message(*options); }, iExitCode);
}
