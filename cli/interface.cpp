#include "interface.h"

#include "commands.h"
#include "wire.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <vector>

namespace {

std::string addressText(const struct sockaddr *pAddress) {
    std::array<char, INET_ADDRSTRLEN> aText{};
    inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in *>(pAddress)->sin_addr, aText.data(),
              aText.size());
    return aText.data();
}

// Each interface with each of its addresses; one without an address stands once.
std::vector<Interface> allInterfaces() {
    struct ifaddrs *pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0) {
        return {};
    }
    const std::unique_ptr<struct ifaddrs, decltype(&freeifaddrs)> guard(pFirst, freeifaddrs);
    std::vector<Interface> interfaces;
    const auto hasName = [&](const std::string &sName) {
        return std::any_of(interfaces.begin(), interfaces.end(),
                           [&](const Interface &known) { return known.sName == sName; });
    };
    for (const bool bWithAddress : {true, false}) {
        for (const struct ifaddrs *p = pFirst; p != nullptr; p = p->ifa_next) {
            const std::string sLabel = p->ifa_name; // an address may have a label such as eth0:1
            const std::string sName = sLabel.substr(0, sLabel.find(':'));
            const bool bAddress = p->ifa_addr != nullptr && p->ifa_addr->sa_family == AF_INET;
            if (bWithAddress ? bAddress : !hasName(sName)) {
                interfaces.push_back(
                    {sName, bAddress ? addressText(p->ifa_addr) : "", (p->ifa_flags & IFF_UP) != 0});
            }
        }
    }
    return interfaces;
}

} // namespace

std::optional<Interface> findInterface(const std::string &sInterface) {
    for (const Interface &known : allInterfaces()) {
        if (known.sName == sInterface || (!known.sAddress.empty() && known.sAddress == sInterface)) {
            return known;
        }
    }
    return std::nullopt;
}

int findRoute(Interface *pInterface) {
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(wire::announcement::kPort);
    inet_pton(AF_INET, wire::kGroup, &address.sin_addr);
    socklen_t uiSize = sizeof address;
    auto *const pAddress = reinterpret_cast<struct sockaddr *>(&address);
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // Connecting a datagram socket sends nothing, but chooses the address to send from.
    const bool bRoute = iSocket >= 0 && connect(iSocket, pAddress, uiSize) == 0 &&
                        getsockname(iSocket, pAddress, &uiSize) == 0;
    const int iError = bRoute ? 0 : errno;
    if (iSocket >= 0) {
        close(iSocket);
    }
    if (bRoute) {
        const std::string sAddress = addressText(pAddress);
        *pInterface = findInterface(sAddress).value_or(Interface{"", sAddress, true});
    }
    return iError;
}

std::string listInterfaces() {
    std::string sList;
    for (const Interface &known : allInterfaces()) {
        sList += (sList.empty() ? "" : ", ") + known.sName +
                 (known.sAddress.empty() ? " without an address" : " with " + known.sAddress);
    }
    return sList;
}

int checkInterface(const char *pszGiven, const std::string &sInterface) {
    if (sInterface.empty() || findInterface(sInterface)) {
        return EXIT_DONE;
    }
    struct in_addr address {};
    const bool bAddress = inet_pton(AF_INET, sInterface.c_str(), &address) == 1;
    return sayAndReturn(EXIT_UNAVAILABLE, std::string(pszGiven) + ": '" + sInterface + "' is no " +
                                              (bAddress ? "address" : "interface") +
                                              " of this machine at present; it has " + listInterfaces());
}

std::string interfaceAddress(const std::string &sInterface) {
    const std::optional<Interface> found = findInterface(sInterface);
    return found ? found->sAddress : "";
}
