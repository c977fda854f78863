#include "command.h"

#include <CLI/CLI.hpp>

#include <utility>

Option Option::type(const std::string &sName) const {
    pOption->type_name(sName);
    return *this;
}

Option Option::group(const std::string &sHeading) const {
    pOption->group(sHeading);
    return *this;
}

Option Option::required() const {
    pOption->required();
    return *this;
}

Option Option::expects(int iLeast, int iMost) const {
    pOption->expected(iLeast, iMost);
    return *this;
}

Option Option::within(int iLeast, int iMost) const {
    pOption->check(CLI::Range(iLeast, iMost));
    return *this;
}

Option Option::needs(const Option &other) const {
    pOption->needs(other.pOption);
    return *this;
}

Option Option::excludes(const Option &other) const {
    pOption->excludes(other.pOption);
    return *this;
}

bool Option::isGiven() const {
    return pOption->count() > 0;
}

Command::Command(CLI::App &app, const std::string &sName, const std::string &sDescription)
    : pApp(app.add_subcommand(sName, sDescription)) {}

Option Command::option(const std::string &sNames, std::string &sValue, const std::string &sHelp) const {
    return Option(pApp->add_option(sNames, sValue, sHelp));
}

Option Command::option(const std::string &sNames, std::vector<std::string> &values,
                       const std::string &sHelp) const {
    return Option(pApp->add_option(sNames, values, sHelp));
}

Option Command::option(const std::string &sNames, int &iValue, const std::string &sHelp) const {
    return Option(pApp->add_option(sNames, iValue, sHelp));
}

Option Command::option(const std::string &sNames, unsigned int &uiValue, const std::string &sHelp) const {
    return Option(pApp->add_option(sNames, uiValue, sHelp));
}

Option Command::flag(const std::string &sNames, bool &bValue, const std::string &sHelp) const {
    return Option(pApp->add_flag(sNames, bValue, sHelp));
}

void Command::footer(const std::string &sText) const {
    pApp->footer(sText);
}

void Command::action(std::function<void()> action) const {
    pApp->callback(std::move(action));
}
