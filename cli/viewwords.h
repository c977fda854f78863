// viewwords.h - the words that the lines of the view share: those of events, of the list and of the status.
//
// Pure functions. They take the objects of docs/view.schema.json. Texts in them are made safe here.
#ifndef PCCAST_CLI_VIEWWORDS_H
#define PCCAST_CLI_VIEWWORDS_H

#include "json.h"

#include <string>

// ---- the values of an object

// The number, text or object at the key; 0 or empty when there is none of that type.
unsigned long numberOf(const Json &object, const char *pszKey);
// Safe to show.
std::string textOf(const Json &object, const char *pszKey);
const Json &partOf(const Json &object, const char *pszKey);

bool hasPlace(const Json &request, const char *pszPlace);
// A message, or a request that takes one back.
bool isOfMessages(const Json &request);

// ---- words

std::string plural(unsigned long ulCount, const std::string &sOne);
// Adds a part to an enumeration, unless it is empty.
void addPart(std::string *psText, const std::string &sPart);
std::string timeFromMs(unsigned long ulMs);
// The time of day, with the date when it is not the day of ulNow.
std::string moment(unsigned long ulTime, unsigned long ulNow);
// "relay of EPG 7"
std::string shortNameOf(const Json &request);
// What the request is about: where a stream comes from, the file, the text. Not for a stop or cancel request.
std::string whatOf(const Json &request);
// What the request is, and where it goes. Empty for a stop or cancel request.
std::string routeOf(const Json &request);
// How long it still goes on, or how often a message still comes.
std::string leftOf(const Json &request, const Json &view);

// ---- the screen

// What the lines are written for.
struct Screen {
    size_t uColumns; // 0: as wide as it takes
    bool bColour;
    bool bBar; // with progress bars
};

constexpr const char *kBold = "\033[1m";
constexpr const char *kGreen = "\033[32m";
constexpr const char *kRed = "\033[31m";
constexpr const char *kDim = "\033[2m";

// pszColour: null for none.
std::string coloured(const std::string &sText, const char *pszColour, const Screen &screen);
// Cut or filled with blanks to uWidth columns.
std::string padded(const std::string &sText, size_t uWidth);

#endif
