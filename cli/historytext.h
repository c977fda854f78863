// historytext.h - writes the entries of the history for people, and as comma-separated values.
//
// Pure functions. They take the entries that Store::history gives. Texts in them are made safe here.
#ifndef PCCAST_CLI_HISTORYTEXT_H
#define PCCAST_CLI_HISTORYTEXT_H

#include "json.h"

#include <string>
#include <vector>

// Two lines for each entry: when and what, and how it ended and what it carried.
std::vector<std::string> historyLines(const std::vector<Json> &entries);

// The columns, and one row. Times are seconds since the epoch. A field is quoted when it has to be.
std::string historyCSVHead();
std::string historyCSV(const Json &entry);

#endif
