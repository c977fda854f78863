// arguments.h - what the two small tools share in reading their arguments.
#ifndef PCCAST_CLI_TOOLS_ARGUMENTS_H
#define PCCAST_CLI_TOOLS_ARGUMENTS_H

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>

// Parses the arguments and then calls check, which returns what is wrong with them, empty when nothing is.
// Returns -1 when the tool has something to do. Else the exit code, after help, version or the problem is
// printed.
inline int readArguments(CLI::App *pApp, int iArguments, char **ppArguments,
                         const std::function<std::string()> &check) {
    std::string sProblem;
    pApp->set_version_flag("--version", pApp->get_name() + " " PCCAST_VERSION);
    try {
        pApp->parse(iArguments, ppArguments);
        sProblem = check();
    } catch (const CLI::Success &answer) {
        return pApp->exit(answer);
    } catch (const CLI::ParseError &error) {
        sProblem = std::string(error.what()) + "; see " + pApp->get_name() + " --help";
    }
    if (sProblem.empty()) {
        return -1;
    }
    std::fprintf(stderr, "%s: %s\n", pApp->get_name().c_str(), sProblem.c_str());
    return 64;
}

// Calls the tool. An exception, such as for memory that runs out, is printed and ends it with 1.
inline int runTool(int (*pRun)(int, char **), int iArguments, char **ppArguments) noexcept {
    try {
        return pRun(iArguments, ppArguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", ppArguments[0], error.what());
        return 1;
    }
}

#endif
