// clitext.h - the texts of the command line: times, durations, addresses, numbers, keys, formats, and the
// identities that stop and cancel take.
//
// Pure functions, used by the subcommands and the tools. A reader takes the whole of its input. It returns an
// empty text on success, else what is wrong and what would be right. Its outputs change only on success.
#ifndef PCCAST_CLI_CLITEXT_H
#define PCCAST_CLI_CLITEXT_H

#include <string>
#include <string_view>
#include <vector>

// Numbers travel in 32 bits, so no time may lie beyond 2106-02-07T06:28:15Z.
constexpr unsigned long kNumberMax = 0xFFFFFFFFul;

// To the service two cast requests are the same when all of this but the format is equal. The format is here
// because the end of the cast is announced with it.
struct CastIdentity {
    unsigned long ulEPGID;
    unsigned long ulType;
    unsigned long ulST;
    unsigned long ulET;
    unsigned short usPort;
    unsigned long ulFormat;
};

// To the service two messages are the same when programme and times are equal. It keeps priority messages and
// the others in two lists; bPriority says which one holds the message.
struct MessageIdentity {
    unsigned long ulEPGID;
    unsigned long ulCT;
    unsigned long ulST;
    unsigned long ulET;
    bool bPriority;
};

// now, +DURATION, HH:MM[:SS] (the next time the clock shows it), YYYY-MM-DDTHH:MM[:SS][Z|+HH:MM], @SECONDS
// since the epoch.
std::string readTime(std::string_view sText, unsigned long ulNow, unsigned long *pulTime);
// 30s, 5m, 1h, 2d, 1h30m; a number alone is seconds.
std::string readDuration(std::string_view sText, unsigned long *pulSeconds);
// ADDRESS:PORT, dotted IPv4 and 1 to 65535.
std::string readEndpoint(std::string_view sText, std::string *psAddress, unsigned short *pusPort);
// Decimal, or hexadecimal after 0x.
std::string readNumber(std::string_view sText, unsigned long ulMax, unsigned long *pulNumber,
                       unsigned long ulMin = 0);
// asf, ts, or a number.
std::string readFormat(std::string_view sText, unsigned long *pulFormat);
// 1 to 16 bytes, two hexadecimal digits each.
std::string readKey(std::string_view sText, std::vector<unsigned char> *pKey);
// EPG:TYPE:START:END:PORT:FORMAT, the times in seconds since the epoch.
std::string readCastIdentity(std::string_view sText, CastIdentity *pIdentity);
// EPG:CREATED:START:END[:priority|:normal]
std::string readMessageIdentity(std::string_view sText, MessageIdentity *pIdentity);

std::string writeFormat(unsigned long ulFormat);
std::string writeCastIdentity(const CastIdentity &identity);
std::string writeMessageIdentity(const MessageIdentity &identity);

// Local date and time "2026-11-24 18:00:00", or the time of day alone.
std::string writeTime(unsigned long ulTime);
std::string writeTimeOfDay(unsigned long ulTime);
// "00:56:38", or "2d 00:56" when it is a day or more.
std::string writeTimeLeft(unsigned long ulSeconds);

// The word that is nearest to sWord, by the letters to be added, dropped, changed or exchanged with their
// neighbour; empty when none is near enough to be meant.
std::string nearestWord(std::string_view sWord, const std::vector<std::string> &words);

#endif
