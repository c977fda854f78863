// pccast - the program: it hosts the service and submits requests to it. Each subcommand has a file of its
// own.
#include "commands.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>

namespace {

constexpr void (*kCommands[])(CLI::App &, int &) = {
    addServeCommand,   addRelayCommand, addFileCommand,    addStopCommand,   addMessageCommand,
    addCancelCommand,  addListCommand,  addStatusCommand,  addEventsCommand, addWatchCommand,
    addStationCommand, addTuneCommand,  addReceiveCommand,
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

More about a command: pccast COMMAND --help
Example:
  pccast serve & pccast relay 239.0.0.1:4000 239.1.2.3:5000 --for 1h; pccast watch)";

} // namespace

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
    const auto isFirst = [&](const CLI::App *pCommand) { return pCommand->get_name() == ppArguments[1]; };
    if (iArguments > 1 && ppArguments[1][0] != '-' && app.get_subcommands(isFirst).empty()) {
        return sayAndReturn(EXIT_USAGE, std::string("there is no command '") + ppArguments[1] +
                                            "'; pccast --help lists them");
    }
    try {
        app.parse(iArguments, ppArguments);
    } catch (const CLI::ParseError &error) {
        iExitCode = app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        return sayAndReturn(iExitCode == EXIT_DONE ? EXIT_INTERNAL : iExitCode,
                            "standard output cannot be written; the output is lost");
    }
    return iExitCode;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    try {
        return run(iArguments, ppArguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pccast: %s\n", error.what());
        return EXIT_INTERNAL;
    }
}
