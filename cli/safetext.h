// safetext.h - makes texts from the network safe for a terminal and for a picture.
//
// Received bytes may be anything: escape sequences, half characters, text that runs backwards. Pure
// functions.
#ifndef PCCAST_CLI_SAFETEXT_H
#define PCCAST_CLI_SAFETEXT_H

#include <string>
#include <string_view>
#include <vector>

// Writes every control character, every direction character and every byte that is not UTF-8 as \n, \xNN or
// \u{NNNN}, and doubles a backslash. The result is one line and cannot steer the terminal.
std::string textForTerminal(std::string_view sText);

// The text as it is shown on a picture: UTF-8, with its line ends. A tab becomes a blank. Every other control
// and direction character, and every byte that is not UTF-8, becomes U+FFFD.
std::string textForPicture(std::string_view sText);

bool isUTF8(std::string_view sText);

// The whole characters in the first uBytes bytes.
std::string textFront(std::string_view sText, size_t uBytes);

// Two hexadecimal digits for each byte.
std::string textAsHex(std::string_view sText);

// The columns that a result of textForTerminal takes on the screen.
size_t textColumns(std::string_view sText);
// Cuts the text to at most uColumns columns. An ellipsis in the last column shows that something was cut.
std::string textCut(std::string_view sText, size_t uColumns);
// Breaks the text into lines of at most uColumns columns, at a blank where there is one. There are at most
// uLines lines; the last is cut as above.
std::vector<std::string> textWrap(std::string_view sText, size_t uColumns, size_t uLines);

#endif
