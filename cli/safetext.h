// safetext.h - texts from the network made fit for a terminal and for JSON.
//
// Received bytes may be anything: escape sequences, half characters, text that runs backwards. Pure
// functions.
#ifndef PCCAST_CLI_SAFETEXT_H
#define PCCAST_CLI_SAFETEXT_H

#include <string>
#include <string_view>

// The text with every control and direction character and every byte that is no UTF-8 written as \n, \xNN or
// \u{NNNN}, and a backslash doubled, so that the result is one line and cannot steer the terminal.
std::string textForTerminal(std::string_view sText);

// As a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD; isUTF8 tells whether any did.
std::string textForJSON(std::string_view sText);
bool isUTF8(std::string_view sText);

// Two hexadecimal digits a byte.
std::string textAsHex(std::string_view sText);

// Columns that a text of textForTerminal takes, and its front part that takes at most uColumns, the last one
// an ellipsis where something was cut.
size_t textColumns(std::string_view sText);
std::string textCut(std::string_view sText, size_t uColumns);

#endif
