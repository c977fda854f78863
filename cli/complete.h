// complete.h - tells a shell what may stand at a place of the command line.
//
// The completions in cli/completion call the program with kCompleteWord. What there is to offer is read from
// the commands themselves. Runs in the main thread.
#ifndef PCCAST_CLI_COMPLETE_H
#define PCCAST_CLI_COMPLETE_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

// pccast complete WORD...: the words behind the program's name. The last one is to be completed; it may be
// empty.
constexpr const char *kCompleteWord = "complete";

// Prints what the last word may become, one a line, with a tabulator and a description where there is one.
// The only line ":files" says that the shell is to offer names of files. Returns EXIT_DONE.
int complete(const CLI::App &app, const std::vector<std::string> &words);

#endif
