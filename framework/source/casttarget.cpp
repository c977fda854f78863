#include "casttarget.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>

bool castTargetCheckAddress(const std::string &sAddress, std::string &sReason) {
    in_addr address{};
    if (inet_pton(AF_INET, sAddress.c_str(), &address) == 1 && sAddress.find('\0') == std::string::npos &&
        address.s_addr != htonl(INADDR_ANY)) {
        return true;
    }
    sReason = "\"" + sAddress.substr(0, 40) + "\" is no IPv4 address to send to";
    return false;
}

bool castTargetParse(const char *pszTarget, unsigned int uiPort, CastTarget &target, std::string &sReason) {
    if (!pszTarget || !*pszTarget) {
        sReason = "no target is named";
        return false;
    }
    const std::string sTarget = pszTarget;
    const std::size_t ulColon = sTarget.find(':');
    unsigned long ulPort = uiPort;
    if (ulColon != std::string::npos) {
        const std::string sPort = sTarget.substr(ulColon + 1);
        const bool bDigits =
            !sPort.empty() && sPort.size() <= 5 &&
            std::all_of(sPort.begin(), sPort.end(), [](unsigned char c) { return std::isdigit(c); });
        ulPort = bDigits ? std::stoul(sPort) : 0;
    }
    if (ulPort == 0 || ulPort > 0xFFFF) {
        sReason = "\"" + sTarget.substr(0, 40) + "\" has no port from 1 to 65535";
        return false;
    }
    if (!castTargetCheckAddress(sTarget.substr(0, ulColon), sReason)) {
        return false;
    }
    target = {sTarget.substr(0, ulColon), static_cast<unsigned short>(ulPort)};
    return true;
}
