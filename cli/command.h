// command.h - a subcommand and its options, as the commands' files declare them.
//
// CLI11 reads the command line. A compiler takes seconds for its headers, so the commands see this one
// instead. Command and Option are handles: a copy means the same one, and the app that owns it outlives them
// all.
#ifndef PCCAST_CLI_COMMAND_H
#define PCCAST_CLI_COMMAND_H

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

class Option {
public:
    explicit Option(CLI::Option *pGiven) : pOption(pGiven) {}

    Option type(const std::string &sName) const;     // what help calls its value; empty: nothing
    Option group(const std::string &sHeading) const; // where help lists it
    Option required() const;
    Option expects(int iLeast, int iMost) const; // so many values
    Option within(int iLeast, int iMost) const;  // a number between these
    Option needs(const Option &other) const;
    Option excludes(const Option &other) const;
    bool isGiven() const; // once the command line is read

private:
    CLI::Option *pOption;
};

class Command {
public:
    // Adds the subcommand to the app.
    Command(CLI::App &app, const std::string &sName, const std::string &sDescription);

    // sNames: "--name", "-n,--name", or "NAME" for an argument by its position. The value must live until the
    // command line is read, and keeps what it has if the option is not given.
    Option option(const std::string &sNames, std::string &sValue, const std::string &sHelp) const;
    Option option(const std::string &sNames, std::vector<std::string> &values,
                  const std::string &sHelp) const;
    Option option(const std::string &sNames, int &iValue, const std::string &sHelp) const;
    Option option(const std::string &sNames, unsigned int &uiValue, const std::string &sHelp) const;
    Option flag(const std::string &sNames, bool &bValue, const std::string &sHelp) const;
    void footer(const std::string &sText) const;     // what help ends with
    void action(std::function<void()> action) const; // runs once the command line is read

private:
    CLI::App *pApp;
};

#endif
