#include "interface.h"

#include "commands.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <array>
#include <memory>

namespace {

// The interface's first IPv4 address by its name, or the address itself if an interface has it; else 0.
in_addr_t findAddress(const std::string &sInterface) {
    struct in_addr wanted {};
    struct ifaddrs *pFirst = nullptr;
    const bool bAddress = inet_pton(AF_INET, sInterface.c_str(), &wanted) == 1;
    if (getifaddrs(&pFirst) != 0) {
        return 0;
    }
    const std::unique_ptr<struct ifaddrs, decltype(&freeifaddrs)> guard(pFirst, freeifaddrs);
    for (const struct ifaddrs *p = pFirst; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        const in_addr_t uiAddress =
            reinterpret_cast<const struct sockaddr_in *>(p->ifa_addr)->sin_addr.s_addr;
        if (bAddress ? uiAddress == wanted.s_addr : sInterface == p->ifa_name) {
            return uiAddress;
        }
    }
    return 0;
}

} // namespace

int checkInterface(const std::string &sInterface) {
    if (sInterface.empty() || if_nametoindex(sInterface.c_str()) != 0 || findAddress(sInterface) != 0) {
        return EXIT_DONE;
    }
    return sayAndReturn(EXIT_USAGE, "--interface: '" + sInterface +
                                        "' is no interface of this machine; give a name such as eth0 or one "
                                        "of its addresses (ip -brief address lists them)");
}

std::string interfaceAddress(const std::string &sInterface) {
    struct in_addr address {};
    std::array<char, INET_ADDRSTRLEN> aText{};
    address.s_addr = sInterface.empty() ? 0 : findAddress(sInterface);
    if (address.s_addr != 0) {
        inet_ntop(AF_INET, &address, aText.data(), aText.size());
    }
    return aText.data();
}
