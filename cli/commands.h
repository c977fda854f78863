// commands.h - the subcommands of pccast, and the exit codes that scripts may rely on.
//
// Each command has a file of its own and adds itself to the app. Its callback runs in the main thread and
// leaves the program's exit code in iExitCode. Results for scripts go to standard output, words for people to
// standard error.
#ifndef PCCAST_CLI_COMMANDS_H
#define PCCAST_CLI_COMMANDS_H

#include <initializer_list>
#include <string>

namespace CLI {
class App;
}

enum ExitCode {
    EXIT_DONE = 0,          // done
    EXIT_USAGE = 64,        // the command line cannot be understood
    EXIT_BAD_DATA = 65,     // understood, but the request cannot be carried out
    EXIT_NO_INPUT = 66,     // a file cannot be read
    EXIT_UNAVAILABLE = 69,  // no service listens, it cannot be started, or watch heard too few datagrams
    EXIT_INTERNAL = 70,     // the program or the system failed, or a result cannot be written
    EXIT_SWITCHED_OFF = 78, // the registry switches the service off

    // What became of a request.
    EXIT_REFUSED = 80,     // the service did not take it, or lost it
    EXIT_FAILED = 81,      // the cast could not start, or could not go on
    EXIT_STOPPED = 82,     // it was stopped or cancelled
    EXIT_PREEMPTED = 83,   // a newer one took its place for good
    EXIT_EXPIRED = 84,     // its end came before its turn
    EXIT_CLOSED = 85,      // the service was closed
    EXIT_NO_WORD = 86,     // the service has not said what became of it
    EXIT_INTERRUPTED = 130 // Ctrl-C ended --follow
};

void addServeCommand(CLI::App &app, int &iExitCode);
void addRelayCommand(CLI::App &app, int &iExitCode);
void addFileCommand(CLI::App &app, int &iExitCode);
void addStopCommand(CLI::App &app, int &iExitCode);
void addMessageCommand(CLI::App &app, int &iExitCode);
void addCancelCommand(CLI::App &app, int &iExitCode);
void addListCommand(CLI::App &app, int &iExitCode);
void addStatusCommand(CLI::App &app, int &iExitCode);
void addEventsCommand(CLI::App &app, int &iExitCode);
void addHistoryCommand(CLI::App &app, int &iExitCode);
void addWatchCommand(CLI::App &app, int &iExitCode);
void addReceiveCommand(CLI::App &app, int &iExitCode);
void addTuneCommand(CLI::App &app, int &iExitCode);
void addStationCommand(CLI::App &app, int &iExitCode);

// Says sText on standard error under the program's name and returns iExitCode.
int sayAndReturn(int iExitCode, const std::string &sText);

// The command of that name; null when there is none.
const CLI::App *commandNamed(const CLI::App &app, const std::string &sName);

// Turns standard output aside: from now on what anybody else prints there goes to standard error, and
// printResult alone writes where standard output has led. Returns false when it cannot (said).
bool keepOutputForResults();

// Writes one line to standard output at once.
void printResult(const std::string &sLine);

// An argument and what is wrong with it: the result of its reader, empty when it could be read.
struct Argument {
    const char *pszName;
    std::string sProblem;
};

// Returns EXIT_DONE when no argument has a problem. Else says the first problem and returns EXIT_USAGE.
int checkArguments(std::initializer_list<Argument> arguments);

// The example that ends a command's help.
std::string helpExample(const std::string &sExample);

#endif
