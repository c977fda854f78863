#include "clitext.h"

#include <pccast/castinfo.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <utility>

namespace {

const char *const kTimeHint =
    "give now, +30s, +5m, +1h, 18:00, 2026-11-24T18:00:00 (local), 2026-11-24T18:00:00Z or @SECONDS";

std::string quoted(std::string_view sText) {
    return "'" + std::string(sText) + "'";
}

// Reads the whole of sText as digits of the base. Returns false for any other text and above ulMax.
bool wholeNumber(std::string_view sText, int iBase, unsigned long ulMax, unsigned long *pulNumber) {
    unsigned long ulNumber = 0;
    const char *const pEnd = sText.data() + sText.size();
    const auto result = std::from_chars(sText.data(), pEnd, ulNumber, iBase);
    if (sText.empty() || result.ec != std::errc() || result.ptr != pEnd || ulNumber > ulMax) {
        return false;
    }
    *pulNumber = ulNumber;
    return true;
}

// Takes exactly uDigits digits off the front of *psText.
bool takeDigits(std::string_view *psText, size_t uDigits, int *piNumber) {
    unsigned long ulNumber = 0;
    if (psText->size() < uDigits || !wholeNumber(psText->substr(0, uDigits), 10, 9999, &ulNumber)) {
        return false;
    }
    *piNumber = static_cast<int>(ulNumber);
    psText->remove_prefix(uDigits);
    return true;
}

bool takeCharacter(std::string_view *psText, std::string_view sAnyOf) {
    if (psText->empty() || sAnyOf.find(psText->front()) == std::string_view::npos) {
        return false;
    }
    psText->remove_prefix(1);
    return true;
}

// Takes HH:MM or HH:MM:SS off the front of *psText.
bool takeTimeOfDay(std::string_view *psText, struct tm *pTime) {
    pTime->tm_sec = 0;
    return takeDigits(psText, 2, &pTime->tm_hour) && takeCharacter(psText, ":") &&
           takeDigits(psText, 2, &pTime->tm_min) &&
           (!takeCharacter(psText, ":") || takeDigits(psText, 2, &pTime->tm_sec)) && pTime->tm_hour < 24 &&
           pTime->tm_min < 60 && pTime->tm_sec < 60;
}

// Turns calendar fields, local or universal, into seconds since the epoch. Returns false when the calendar
// has no such time.
bool calendarTime(const struct tm &wanted, bool bUniversal, long *plTime) {
    struct tm fields = wanted;
    fields.tm_isdst = -1;
    const time_t tTime = bUniversal ? timegm(&fields) : std::mktime(&fields);
    *plTime = tTime;
    return fields.tm_mday == wanted.tm_mday && fields.tm_mon == wanted.tm_mon &&
           fields.tm_hour == wanted.tm_hour && fields.tm_min == wanted.tm_min;
}

// The next time that the local clock shows HH:MM[:SS].
std::string readTimeOfDay(std::string_view sText, unsigned long ulNow, long *plTime) {
    const time_t tNow = static_cast<time_t>(ulNow);
    struct tm fields {};
    localtime_r(&tNow, &fields);
    std::string_view sRest = sText;
    if (!takeTimeOfDay(&sRest, &fields) || !sRest.empty()) {
        return quoted(sText) + " is not a time; " + kTimeHint;
    }
    fields.tm_isdst = -1;
    struct tm today = fields;
    *plTime = std::mktime(&today);
    if (*plTime < tNow) {
        fields.tm_mday += 1;
        *plTime = std::mktime(&fields);
    }
    return {};
}

std::string readCalendarTime(std::string_view sText, long *plTime) {
    struct tm fields {};
    std::string_view sRest = sText;
    if (!takeDigits(&sRest, 4, &fields.tm_year) || !takeCharacter(&sRest, "-") ||
        !takeDigits(&sRest, 2, &fields.tm_mon) || !takeCharacter(&sRest, "-") ||
        !takeDigits(&sRest, 2, &fields.tm_mday) || !takeCharacter(&sRest, "T ") ||
        !takeTimeOfDay(&sRest, &fields)) {
        return quoted(sText) + " is not a time; " + kTimeHint;
    }
    fields.tm_year -= 1900;
    fields.tm_mon -= 1;

    bool bUniversal = false;
    long lEast = 0;
    if (takeCharacter(&sRest, "Zz")) {
        bUniversal = true;
    } else if (!sRest.empty() && (sRest.front() == '+' || sRest.front() == '-')) {
        const long lSign = sRest.front() == '+' ? 1 : -1;
        int iHours = 0;
        int iMinutes = 0;
        sRest.remove_prefix(1);
        const bool bHours = takeDigits(&sRest, 2, &iHours);
        takeCharacter(&sRest, ":"); // +09:00 and +0900 alike
        if (!bHours || !takeDigits(&sRest, 2, &iMinutes) || iHours > 14 || iMinutes > 59) {
            return quoted(sText) + " has no valid time zone; end it with Z, +HH:MM or nothing (local time)";
        }
        bUniversal = true;
        lEast = lSign * (iHours * 3600L + iMinutes * 60L);
    }
    if (!sRest.empty()) {
        return quoted(sText) + " is not a time; " + kTimeHint;
    }
    if (!calendarTime(fields, bUniversal, plTime)) {
        return quoted(sText) + " does not exist in the calendar" +
               (bUniversal ? "" : " of the local time zone");
    }
    *plTime -= lEast;
    return {};
}

// The parts of sText between colons.
std::vector<std::string_view> splitAtColons(std::string_view sText) {
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t uColon = sText.find(':');
        parts.push_back(sText.substr(0, uColon));
        if (uColon == std::string_view::npos) {
            return parts;
        }
        sText.remove_prefix(uColon + 1);
    }
}

// Reads each part as a number. Returns false at the first part that is not a number or is too large.
template <size_t Count>
bool readNumbers(const std::vector<std::string_view> &parts, const std::array<unsigned long, Count> &aMax,
                 std::array<unsigned long, Count> *paNumber) {
    for (size_t i = 0; i < Count; ++i) {
        if (!readNumber(parts[i], aMax[i], &(*paNumber)[i]).empty()) {
            return false;
        }
    }
    return true;
}

} // namespace

std::string readTime(std::string_view sText, unsigned long ulNow, unsigned long *pulTime) {
    std::string sProblem;
    long lTime = static_cast<long>(ulNow);
    unsigned long ulNumber = 0;
    if (sText == "now") {
        // lTime is the current time already
    } else if (!sText.empty() && sText.front() == '+') {
        sProblem = readDuration(sText.substr(1), &ulNumber);
        lTime += static_cast<long>(ulNumber);
    } else if (!sText.empty() && sText.front() == '@') {
        if (!wholeNumber(sText.substr(1), 10, static_cast<unsigned long>(INT64_MAX), &ulNumber)) {
            sProblem = quoted(sText) + " is not a time; " + kTimeHint;
        }
        lTime = static_cast<long>(ulNumber);
    } else if (sText.size() > 4 && sText[4] == '-') {
        sProblem = readCalendarTime(sText, &lTime);
    } else {
        sProblem = readTimeOfDay(sText, ulNow, &lTime);
    }
    if (!sProblem.empty()) {
        return sProblem;
    }
    if (lTime < 0 || static_cast<unsigned long>(lTime) > kNumberMax) {
        return quoted(sText) + " does not fit the 32 bits of a time on the wire; "
                               "give one from 1970-01-01T00:00:00Z to 2106-02-07T06:28:15Z";
    }
    *pulTime = static_cast<unsigned long>(lTime);
    return {};
}

std::string readDuration(std::string_view sText, unsigned long *pulSeconds) {
    static constexpr std::array<std::pair<char, unsigned long>, 4> kUnits{
        {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};
    std::string sWrong = quoted(sText) + " is not a duration; give 30s, 5m, 1h, 2d or 1h30m";
    std::string sTooLong = quoted(sText) + " is too long; a duration may have at most 2^32-1 seconds";
    unsigned long ulTotal = 0;
    std::string_view sRest = sText;
    do {
        const size_t uDigits = std::min(sRest.find_first_not_of("0123456789"), sRest.size());
        unsigned long ulNumber = 0;
        if (uDigits == 0) {
            return sWrong;
        }
        if (!wholeNumber(sRest.substr(0, uDigits), 10, kNumberMax, &ulNumber)) {
            return sTooLong;
        }
        sRest.remove_prefix(uDigits);
        unsigned long ulUnit = 0;
        if (sRest.empty()) {
            ulUnit = 1;
        }
        for (const auto &[cUnit, ulSeconds] : kUnits) {
            if (!sRest.empty() && sRest.front() == cUnit) {
                ulUnit = ulSeconds;
            }
        }
        if (ulUnit == 0) {
            return sWrong;
        }
        sRest.remove_prefix(sRest.empty() ? 0 : 1);
        ulTotal += ulNumber * ulUnit;
        if (ulTotal > kNumberMax) {
            return sTooLong;
        }
    } while (!sRest.empty());
    *pulSeconds = ulTotal;
    return {};
}

std::string readEndpoint(std::string_view sText, std::string *psAddress, unsigned short *pusPort) {
    const size_t uColon = sText.rfind(':');
    if (uColon == std::string_view::npos) {
        return quoted(sText) + " has no port; give ADDRESS:PORT, for example 239.1.2.3:5000";
    }
    const std::string sAddress(sText.substr(0, uColon));
    struct in_addr address {};
    if (inet_pton(AF_INET, sAddress.c_str(), &address) != 1) {
        return quoted(sAddress) + " in " + quoted(sText) +
               " is not an IPv4 address; give ADDRESS:PORT, for example 239.1.2.3:5000";
    }
    if (address.s_addr == INADDR_ANY) {
        return quoted(sText) + " names no target; give the address of a group or of a machine";
    }
    unsigned long ulPort = 0;
    if (!wholeNumber(sText.substr(uColon + 1), 10, 65535, &ulPort) || ulPort == 0) {
        return quoted(sText.substr(uColon + 1)) + " in " + quoted(sText) +
               " is not a port; give a number from 1 to 65535";
    }
    *psAddress = sAddress;
    *pusPort = static_cast<unsigned short>(ulPort);
    return {};
}

std::string readNumber(std::string_view sText, unsigned long ulMax, unsigned long *pulNumber,
                       unsigned long ulMin) {
    const bool bHexadecimal = sText.starts_with("0x") || sText.starts_with("0X");
    unsigned long ulNumber = 0;
    if (!wholeNumber(bHexadecimal ? sText.substr(2) : sText, bHexadecimal ? 16 : 10, ulMax, &ulNumber) ||
        ulNumber < ulMin) {
        return quoted(sText) + " is not a number from " + std::to_string(ulMin) + " to " +
               std::to_string(ulMax);
    }
    *pulNumber = ulNumber;
    return {};
}

std::string readFormat(std::string_view sText, unsigned long *pulFormat) {
    if (sText == "ts" || sText == "TS") {
        *pulFormat = CAST_FORMAT_TS;
        return {};
    }
    if (sText == "asf" || sText == "ASF") {
        *pulFormat = CAST_FORMAT_ASF;
        return {};
    }
    if (!readNumber(sText, kNumberMax, pulFormat).empty()) {
        return quoted(sText) + " is not a format; give ts, asf or a number such as 0x2021";
    }
    return {};
}

std::string readKey(std::string_view sText, std::vector<unsigned char> *pKey) {
    std::vector<unsigned char> key;
    for (size_t i = 0; i + 1 < sText.size(); i += 2) {
        unsigned long ulByte = 0;
        if (!wholeNumber(sText.substr(i, 2), 16, 255, &ulByte)) {
            return quoted(sText) + " is not a key; give hexadecimal digits only, two for each byte";
        }
        key.push_back(static_cast<unsigned char>(ulByte));
    }
    if (sText.empty() || sText.size() % 2 != 0 || key.size() > 16) {
        return quoted(sText) + " is not a key; give 1 to 16 bytes, two hexadecimal digits each";
    }
    *pKey = key;
    return {};
}

std::string readCastIdentity(std::string_view sText, CastIdentity *pIdentity) {
    const std::vector<std::string_view> parts = splitAtColons(sText);
    std::array<unsigned long, 5> aNumber{};
    unsigned long ulFormat = 0;
    if (parts.size() != 6 ||
        !readNumbers<5>(parts, {kNumberMax, 3, kNumberMax, kNumberMax, 65535}, &aNumber) || aNumber[1] == 0 ||
        aNumber[4] == 0 || !readFormat(parts[5], &ulFormat).empty()) {
        return quoted(sText) + " is not a cast's identity; give the line that relay or file printed, "
                               "EPG:TYPE:START:END:PORT:FORMAT";
    }
    *pIdentity = {aNumber[0], aNumber[1], aNumber[2], aNumber[3], static_cast<unsigned short>(aNumber[4]),
                  ulFormat};
    return {};
}

std::string readMessageIdentity(std::string_view sText, MessageIdentity *pIdentity) {
    const std::vector<std::string_view> parts = splitAtColons(sText);
    std::array<unsigned long, 4> aNumber{};
    const bool bList = parts.size() == 5 && (parts[4] == "priority" || parts[4] == "normal");
    if ((parts.size() != 4 && !bList) ||
        !readNumbers<4>(parts, {kNumberMax, kNumberMax, kNumberMax, kNumberMax}, &aNumber)) {
        return quoted(sText) + " is not a message's identity; give the line that message printed, "
                               "EPG:CREATED:START:END:normal or :priority";
    }
    *pIdentity = {aNumber[0], aNumber[1], aNumber[2], aNumber[3], bList && parts[4] == "priority"};
    return {};
}

std::string writeFormat(unsigned long ulFormat) {
    std::array<char, 24> aFormat{};
    std::snprintf(aFormat.data(), aFormat.size(), "0x%lx", ulFormat);
    return aFormat.data();
}

std::string writeCastIdentity(const CastIdentity &identity) {
    return std::to_string(identity.ulEPGID) + ":" + std::to_string(identity.ulType) + ":" +
           std::to_string(identity.ulST) + ":" + std::to_string(identity.ulET) + ":" +
           std::to_string(identity.usPort) + ":" + writeFormat(identity.ulFormat);
}

std::string writeMessageIdentity(const MessageIdentity &identity) {
    return std::to_string(identity.ulEPGID) + ":" + std::to_string(identity.ulCT) + ":" +
           std::to_string(identity.ulST) + ":" + std::to_string(identity.ulET) +
           (identity.bPriority ? ":priority" : ":normal");
}

std::string writeTime(unsigned long ulTime) {
    const time_t tTime = static_cast<time_t>(ulTime);
    struct tm fields {};
    localtime_r(&tTime, &fields);
    std::array<char, 32> aText{};
    const size_t uLength = std::strftime(aText.data(), aText.size(), "%Y-%m-%d %H:%M:%S", &fields);
    return {aText.data(), uLength};
}

std::string writeTimeOfDay(unsigned long ulTime) {
    return writeTime(ulTime).substr(sizeof "YYYY-MM-DD");
}

std::string writeTimeLeft(unsigned long ulSeconds) {
    std::array<char, 40> aText{};
    const unsigned long ulHours = ulSeconds / 3600;
    const unsigned long ulMinutes = ulSeconds / 60 % 60;
    if (ulHours < 24) {
        std::snprintf(aText.data(), aText.size(), "%02lu:%02lu:%02lu", ulHours, ulMinutes, ulSeconds % 60);
    } else {
        std::snprintf(aText.data(), aText.size(), "%lud %02lu:%02lu", ulHours / 24, ulHours % 24, ulMinutes);
    }
    return aText.data();
}

std::string nearestWord(std::string_view sWord, const std::vector<std::string> &words) {
    std::string sNearest;
    size_t uNearest = std::max<size_t>(2, sWord.size() / 3 + 1); // from here on it is another word
    for (const std::string &sOther : words) {
        // distance[i][j]: from the first i letters of sWord to the first j of sOther
        std::vector<std::vector<size_t>> distance(sWord.size() + 1, std::vector<size_t>(sOther.size() + 1));
        for (size_t i = 0; i <= sWord.size(); ++i) {
            for (size_t j = 0; j <= sOther.size(); ++j) {
                if (i == 0 || j == 0) {
                    distance[i][j] = i + j;
                    continue;
                }
                const size_t uChange = sWord[i - 1] == sOther[j - 1] ? 0 : 1;
                distance[i][j] = std::min(
                    {distance[i - 1][j] + 1, distance[i][j - 1] + 1, distance[i - 1][j - 1] + uChange});
                if (i > 1 && j > 1 && sWord[i - 1] == sOther[j - 2] && sWord[i - 2] == sOther[j - 1]) {
                    distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
                }
            }
        }
        const bool bBegins = sWord.size() >= 2 && sOther.starts_with(sWord);
        const size_t uDistance = bBegins ? 0 : distance[sWord.size()][sOther.size()];
        if (uDistance < uNearest) {
            uNearest = uDistance;
            sNearest = sOther;
        }
    }
    return sNearest;
}
