// listtext.h - writes the requests of the view for people: the order and the lines of list.
//
// Pure functions. They take the view of docs/view.schema.json. Texts in it are made safe here.
#ifndef PCCAST_CLI_LISTTEXT_H
#define PCCAST_CLI_LISTTEXT_H

#include "json.h"
#include "viewwords.h"

#include <string>
#include <vector>

// The requests of a view, those on air first, then in the order in which things will happen, those over last.
// A request that waits for another one has the key why.
std::vector<Json> listRequests(const Json &view);
std::vector<std::string> listLines(const Json &view, const Screen &screen);

#endif
