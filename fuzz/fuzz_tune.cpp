// Runs a receiver on any datagrams: what it hears of the group, and the packets of an ASF cast. The input is
// a row of datagrams, each behind its length in 16 bits. No command may hold anything but a group, a port and
// lines of text.
#include "banner.h"
#include "msbjoin.h"
#include "promise.h"
#include "tunelogic.h"

#include <arpa/inet.h>
#include <cstdint>
#include <netinet/in.h>

namespace {

constexpr unsigned int kPacketSize = 64;
constexpr const char *kHeader = "header";

void checkCommand(const TuneCommand &command) {
    if (command.eKind == TUNE_PLAY) {
        in_addr group{};
        promise(inet_pton(AF_INET, command.cast.sGroup.c_str(), &group) == 1);
        promise(IN_MULTICAST(ntohl(group.s_addr)) && command.cast.usPort != 0);
        promise(command.cast.bASF == !command.cast.formats.empty());
    } else if (command.eKind == TUNE_SHOW) {
        promise(!command.page.lines.empty() && command.page.lines.size() <= kBannerLines);
        for (const std::string &sLine : command.page.lines) {
            for (const char cByte : sLine) {
                promise(static_cast<unsigned char>(cByte) >= 0x20 && cByte != 0x7F);
            }
        }
        bannerDraw(command.page);
    }
}

void checkPieces(const std::vector<MSBPiece> &pieces, bool *pbBegun) {
    for (const MSBPiece &piece : pieces) {
        promise(piece.bBegins ? piece.sBytes == kHeader : *pbBegun && piece.sBytes.size() == kPacketSize);
        *pbBegun = true;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    TuneState state;
    MSBJoin join;
    join.formats = {{1, kPacketSize, kHeader}};
    bool bBegun = false;
    unsigned long ulNow = 0;
    while (ulSize >= 2) {
        const std::size_t ulLength = std::min<std::size_t>(pData[0] + 256U * pData[1], ulSize - 2);
        // The datagram in memory of its own, so that a read beyond it is found.
        const std::vector<unsigned char> datagram(pData + 2, pData + 2 + ulLength);
        pData += 2 + ulLength;
        ulSize -= 2 + ulLength;
        ulNow += 40;
        std::vector<TuneCommand> commands =
            tuneHear(&state, decodeAir(datagram.data(), datagram.size()), ulNow);
        for (TuneCommand &command : tuneTick(&state, ulNow)) {
            commands.push_back(std::move(command));
        }
        for (const TuneCommand &command : commands) {
            checkCommand(command);
        }
        std::vector<MSBPiece> pieces;
        msbTake(&join, datagram.data(), datagram.size(), ulNow, &pieces);
        checkPieces(pieces, &bBegun);
        promise(join.held.size() <= kMSBHeldMost && !join.held.contains(0));
    }
    return 0;
}
