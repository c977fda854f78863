// pccast - the program: it hosts the service and submits requests to it. Each subcommand has a file of its
// own.
#include "clitext.h"
#include "commands.h"
#include "complete.h"
#include "descriptors.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

namespace {

constexpr void (*kCommands[])(CLI::App &, int &) = {
    addServeCommand,  addRelayCommand,   addFileCommand,   addStopCommand,    addMessageCommand,
    addCancelCommand, addListCommand,    addStatusCommand, addEventsCommand,  addHistoryCommand,
    addWatchCommand,  addStationCommand, addTuneCommand,   addReceiveCommand,
};

constexpr const char *kFooter =
    R"(Times: now, +30s, +5m, +1h, 18:00, 2026-11-24T18:00:00 (local time), 2026-11-24T18:00:00Z, @SECONDS.
Addresses: ADDRESS:PORT, for example 239.1.2.3:5000. Numbers: decimal, or hexadecimal after 0x.

Exit codes:
   0  done
  64  the command line cannot be understood
  65  the command line is understood, but the request cannot be carried out
  66  a file cannot be read
  69  no service listens, or it cannot be started, or watch heard too few datagrams
  70  the program or the system failed, or a result cannot be written
  78  the registry switches the service off
What became of a request:
  80  the service refused it, or lost it
  81  the cast could not start, or could not go on
  82  it was stopped or cancelled
  83  a newer one took its place for good
  84  its end came before its turn
  85  the service was closed
  86  the service did not say
 130  Ctrl-C ended --follow

More about a command: pccast help COMMAND
Example:
  pccast serve & pccast relay --wait 5s 239.0.0.1:4000 239.1.2.3:5000 --for 1h; pccast watch)";

// Where results go. Standard output itself, until keepOutputForResults.
std::FILE *gResults = stdout;

} // namespace

const CLI::App *commandNamed(const CLI::App &app, const std::string &sName) {
    const auto found =
        app.get_subcommands([&](const CLI::App *pCommand) { return pCommand->get_name() == sName; });
    return found.empty() ? nullptr : found[0];
}

bool keepOutputForResults() {
    std::fflush(stdout);
    const int iResults = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    std::FILE *const pResults = iResults < 0 ? nullptr : fdopen(iResults, "w");
    if (pResults == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        sayAndReturn(EXIT_INTERNAL, std::string("standard output cannot be kept: ") + std::strerror(errno));
        return false;
    }
    gResults = pResults;
    return true;
}

void printResult(const std::string &sLine) {
    std::fprintf(gResults, "%s\n", sLine.c_str());
    std::fflush(gResults);
}

int sayAndReturn(int iExitCode, const std::string &sText) {
    std::fflush(stdout);
    std::fprintf(stderr, "pccast: %s\n", sText.c_str());
    return iExitCode;
}

int checkArguments(std::initializer_list<Argument> arguments) {
    for (const Argument &argument : arguments) {
        if (!argument.sProblem.empty()) {
            return sayAndReturn(EXIT_USAGE, std::string(argument.pszName) + ": " + argument.sProblem);
        }
    }
    return EXIT_DONE;
}

std::string helpExample(const std::string &sExample) {
    return "Example:\n  " + sExample;
}

namespace {

// The commands with what they do, a line each.
std::string listCommands(const CLI::App &app) {
    std::string sList;
    for (const CLI::App *pCommand : app.get_subcommands(nullptr)) {
        std::array<char, 160> aLine{};
        std::snprintf(aLine.data(), aLine.size(), "  %-9s %s\n", pCommand->get_name().c_str(),
                      pCommand->get_description().c_str());
        sList += aLine.data();
    }
    return sList + "pccast help COMMAND tells more.\n";
}

// Says that there is no such command, which one may be meant, and which there are. Returns EXIT_USAGE.
int sayUnknownCommand(const CLI::App &app, const std::string &sName) {
    std::vector<std::string> names{"help"};
    for (const CLI::App *pCommand : app.get_subcommands(nullptr)) {
        names.push_back(pCommand->get_name());
    }
    const std::string sNearest = nearestWord(sName, names);
    sayAndReturn(EXIT_USAGE, "there is no command '" + sName + "'" +
                                 (sNearest.empty() ? "" : "; did you mean " + sNearest + "?"));
    std::fputs(listCommands(app).c_str(), stderr);
    return EXIT_USAGE;
}

// The words behind the program's name. "help COMMAND" becomes "COMMAND --help".
std::vector<std::string> readWords(int iArguments, char **ppArguments) {
    std::vector<std::string> words(ppArguments + 1, ppArguments + iArguments);
    if (!words.empty() && words[0] == "help") {
        words.erase(words.begin());
        words.resize(std::min<size_t>(words.size(), 1));
        words.emplace_back("--help");
    }
    return words;
}

// Parses the words and runs the command that they name. Returns the exit code.
int runCommand(CLI::App *pApp, std::vector<std::string> words, const int &iExitCode) {
    if (words.empty()) {
        sayAndReturn(EXIT_USAGE, "which command? There are:");
        std::fputs(listCommands(*pApp).c_str(), stderr);
        return EXIT_USAGE;
    }
    if (words[0] == kCompleteWord) {
        return complete(*pApp, {words.begin() + 1, words.end()});
    }
    if (words[0].empty() || (words[0][0] != '-' && commandNamed(*pApp, words[0]) == nullptr)) {
        return sayUnknownCommand(*pApp, words[0]);
    }
    std::reverse(words.begin(), words.end()); // as the parser wants them
    try {
        pApp->parse(words);
    } catch (const CLI::ParseError &error) {
        return pApp->exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return iExitCode;
}

// Runs the command that the arguments name. Returns the exit code.
int run(int iArguments, char **ppArguments) {
    std::signal(SIGPIPE, SIG_IGN); // a peer that hangs up is an error to report, not the end

    CLI::App app("Casts live streams and stored files onto multicast groups and shows messages.", "pccast");
    app.set_version_flag("--version", "pccast " PCCAST_VERSION);
    app.require_subcommand(1);
    app.footer(kFooter);
    int iExitCode = EXIT_DONE;
    for (const auto pAddCommand : kCommands) {
        pAddCommand(app, iExitCode);
    }
    // An unknown argument is named first, a missing one after it: often the unknown one is the missing one,
    // mistyped.
    app.failure_message([](const CLI::App *pApp, const CLI::Error &error) {
        const std::vector<std::string> unknown = pApp->remaining(true);
        return "pccast: " + (unknown.empty() ? error.what() : "there is no argument '" + unknown[0] + "'") +
               "; see pccast --help, or --help after a command\n";
    });
    iExitCode = runCommand(&app, readWords(iArguments, ppArguments), iExitCode);
    for (std::FILE *pOutput : {stdout, gResults}) {
        if (std::fflush(pOutput) != 0 || std::ferror(pOutput) != 0) {
            return sayAndReturn(iExitCode == EXIT_DONE ? EXIT_INTERNAL : iExitCode,
                                "standard output cannot be written; the output is lost");
        }
    }
    return iExitCode;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    holdStandardDescriptors();
    try {
        return run(iArguments, ppArguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pccast: %s\n", error.what());
        return EXIT_INTERNAL;
    }
}
