// pccast relay - submits the cast of a live stream.
#include "command.h"
#include "commands.h"
#include "request.h"
#include "submit.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

namespace {

struct RelayOptions {
    RequestOptions request;
    std::string sSource;
    std::string sDestination;
    std::string sFormat = "ts";
    std::string sType = "2";
    std::string sKey;
    bool bSeed = false;
    bool bFastSeed = false;
    bool bChunks = false;
};

// The addresses of this machine, for a message.
std::string ownAddresses() {
    struct ifaddrs *pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0) {
        return "not known";
    }
    const std::unique_ptr<struct ifaddrs, decltype(&freeifaddrs)> guard(pFirst, freeifaddrs);
    std::string sAddresses;
    for (const struct ifaddrs *p = pFirst; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr != nullptr && p->ifa_addr->sa_family == AF_INET) {
            std::array<char, INET_ADDRSTRLEN> aText{};
            inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in *>(p->ifa_addr)->sin_addr,
                      aText.data(), aText.size());
            sAddresses += (sAddresses.empty() ? "" : ", ") + std::string(aText.data());
        }
    }
    return sAddresses.empty() ? "none" : sAddresses;
}

// Looks whether the stream can arrive at the source at all, and whether the relay would feed itself. Returns
// EXIT_DONE or EXIT_BAD_DATA. A group is not judged: whether it comes back depends on the interface that the
// service sends by, and this program does not know it.
int checkEndpoints(const CastRequest &request) {
    struct sockaddr_in source {};
    source.sin_family = AF_INET;
    inet_pton(AF_INET, request.sSource.c_str(), &source.sin_addr);
    if (IN_MULTICAST(ntohl(source.sin_addr.s_addr))) {
        return EXIT_DONE;
    }
    // The relay binds its socket to the address. So does this, to a port that is free.
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int iBound = bind(iSocket, reinterpret_cast<const struct sockaddr *>(&source), sizeof source);
    const int iError = iBound == 0 ? 0 : errno;
    close(iSocket);
    if (iError == EADDRNOTAVAIL) {
        return sayAndReturn(EXIT_BAD_DATA,
                            "SOURCE: " + request.sSource +
                                " is neither a group nor an address of this machine, so nothing arrives "
                                "there; this machine's addresses: " +
                                ownAddresses());
    }
    if (request.sSource == request.sDestination && request.usSourcePort == request.identity.usPort) {
        return sayAndReturn(EXIT_BAD_DATA, "source and destination are both " + request.sSource + ":" +
                                               std::to_string(request.usSourcePort) +
                                               ": the relay would feed itself; give two different ones");
    }
    return EXIT_DONE;
}

int relay(const RelayOptions &options) {
    CastRequest request{};
    RequestTimes times{};
    Service service{};
    CastIdentity &identity = request.identity;
    int iExit = checkArguments(
        {{"SOURCE", readEndpoint(options.sSource, &request.sSource, &request.usSourcePort)},
         {"DESTINATION", readEndpoint(options.sDestination, &request.sDestination, &identity.usPort)},
         {"--format", readFormat(options.sFormat, &identity.ulFormat)},
         {"--type", readNumber(options.sType, CAST_TYPE_STREAM_2, &identity.ulType, CAST_TYPE_STREAM)},
         {"--key", options.sKey.empty() ? "" : readKey(options.sKey, &request.key)}});
    if (iExit == EXIT_DONE) {
        iExit = readRequestOptions(options.request, kCastDefaultFor, &times);
    }
    if (iExit == EXIT_DONE) {
        iExit = checkEndpoints(request);
    }
    if (iExit == EXIT_DONE) {
        iExit = reachForRequest(options.request, kCastDefaultFor, ServiceKind::Casts, &service, &times);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }

    identity.ulEPGID = times.ulEPGID;
    identity.ulST = times.ulST;
    identity.ulET = times.ulET;
    request.ulCT = times.ulCT;
    request.iEncryptionType = options.bFastSeed ? CAST_ENCRYPTION_FAST_SEED : CAST_ENCRYPTION_SEED;
    request.iASFSplit = options.bChunks ? CAST_SPLIT_CHUNKS : CAST_SPLIT_NONE;
    return requestCast(options.request, service, request,
                       "relay of " + options.sSource + " to " + options.sDestination);
}

} // namespace

void addRelayCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "relay", "cast the live stream that arrives at SOURCE");
    auto options = std::make_shared<RelayOptions>();
    command
        .option("SOURCE", options->sSource,
                "where the stream arrives: an address of this machine, or a group, which is joined on the "
                "loopback interface")
        .type("ADDRESS:PORT")
        .required();
    command.option("DESTINATION", options->sDestination, "the group that it is sent to")
        .type("ADDRESS:PORT")
        .required();
    addRequestOptions(command, options->request, "1h");
    command.option("--format", options->sFormat, "what it carries (default ts)").type("ts|asf|NUMBER");
    command
        .option("--type", options->sType, "the cast type, 2 or 3; the service treats both alike (default 2)")
        .type("N");
    const Option key = command
                           .option("--key", options->sKey,
                                   "decrypt with this key of up to 16 bytes; a shorter one is "
                                   "filled up with zeros")
                           .type("HEX");
    const Option seed =
        command.flag("--seed", options->bSeed, "the key is for SEED (the default)").needs(key);
    command.flag("--fast-seed", options->bFastSeed, "the key is for SEED in its fast variant")
        .needs(key)
        .excludes(seed);
    command.flag("--chunks", options->bChunks,
                 "a datagram holds chunks, each after its 16-bit little-endian length; send each alone");
    command.footer("Prints the cast's identity, which pccast stop takes back.\n\n" +
                   helpExample("pccast relay 239.0.0.1:4000 239.1.2.3:5000 --epg 7 --start 18:00 --for 2h"));
    setRequestAction(
        command, [options] { return relay(*options); }, iExitCode);
}
