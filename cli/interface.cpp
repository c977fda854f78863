#include "interface.h"

#include "commands.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <memory>

namespace {

bool isInterface(const std::string &sInterface) {
    if (if_nametoindex(sInterface.c_str()) != 0) {
        return true;
    }
    struct in_addr wanted {};
    struct ifaddrs *pFirst = nullptr;
    if (inet_pton(AF_INET, sInterface.c_str(), &wanted) != 1 || getifaddrs(&pFirst) != 0) {
        return false;
    }
    const std::unique_ptr<struct ifaddrs, decltype(&freeifaddrs)> guard(pFirst, freeifaddrs);
    for (const struct ifaddrs *p = pFirst; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr != nullptr && p->ifa_addr->sa_family == AF_INET &&
            reinterpret_cast<const struct sockaddr_in *>(p->ifa_addr)->sin_addr.s_addr == wanted.s_addr) {
            return true;
        }
    }
    return false;
}

} // namespace

int checkInterface(const std::string &sInterface) {
    if (sInterface.empty() || isInterface(sInterface)) {
        return EXIT_DONE;
    }
    return sayAndReturn(EXIT_USAGE, "--interface: '" + sInterface +
                                        "' is no interface of this machine; give a name such as eth0 or one "
                                        "of its addresses (ip -brief address lists them)");
}
