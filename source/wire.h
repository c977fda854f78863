// wire.h - the numbers on the wire: the words of each kind of frame, the commands, the tags of the items, the
// group and the ports.
//
// Everything that builds or reads a frame includes it: the two request modules, the two engines that send
// announcements and messages, `pccast watch` and the benchmarks. docs/wire-formats.md describes the bytes.
// The paths of the local sockets and the commands of the requests are in the public headers.
#ifndef PCCAST_WIRE_H
#define PCCAST_WIRE_H

#include <cstdint>

// The command of an announcement.
enum BCICommand : uint32_t {
    BCI_CMD_ONAIR = 0x40030, // a cast is on air
    BCI_CMD_END = 0x40033    // a cast has ended
};
// Its type item.
enum BCIType : uint32_t {
    BCI_TYPE_STREAM = 1, // a relayed stream
    BCI_TYPE_FILE = 16   // a stored file
};
// Its format item.
enum BCIFormat : uint32_t {
    BCI_FORMAT_H264 = 2, // the destination's address and port follow
    BCI_FORMAT_ASF = 3   // the station file follows
};

namespace wire {

constexpr const char *kGroup = "224.9.9.9"; // announcements and message broadcasts go to it

// ---- cast request, on the local socket
namespace castrequest {
constexpr unsigned int kIdent = 200;
constexpr unsigned int kService = 200;
constexpr unsigned short kCommand = 1;
constexpr unsigned short kEPGID = 2;
constexpr unsigned short kCreationTime = 3;
constexpr unsigned short kType = 4;
constexpr unsigned short kStartTime = 5;
constexpr unsigned short kEndTime = 6;
constexpr unsigned short kSourcePort = 7;
constexpr unsigned short kSource = 8;
constexpr unsigned short kDestinationPort = 9;
constexpr unsigned short kDestination = 10;
constexpr unsigned short kFile = 11;
constexpr unsigned short kFormat = 12;
constexpr unsigned short kStreamId = 13; // nobody uses 14
constexpr unsigned short kEncryption = 15;
constexpr unsigned short kKey = 16;
constexpr unsigned short kSplit = 17;
} // namespace castrequest

// ---- message request, on the local socket
namespace messagerequest {
constexpr unsigned int kIdent = 200;
constexpr unsigned int kService = 205;
constexpr unsigned int kReceiveIdent = 205; // the receiver asks the library for this ident
} // namespace messagerequest

// ---- message broadcast, on the network
namespace broadcast {
constexpr unsigned int kIdent = 14;
constexpr unsigned int kService = 204;
constexpr unsigned short kPort = 9367;
constexpr unsigned short kSendTime = 0x004B;
} // namespace broadcast

// ---- items that a message request and a message broadcast share
namespace message {
constexpr unsigned short kCreationTime = 0x0003; // only in a request
constexpr unsigned short kPriority = 0x000E;     // only in a request
constexpr unsigned short kStartTime = 0x000B;
constexpr unsigned short kEndTime = 0x000C;
constexpr unsigned short kAttribute1 = 0x5001;
constexpr unsigned short kAttribute3 = 0x5003;
constexpr unsigned short kRepeat = 0x500A; // 2 bytes
constexpr unsigned short kText = 0x500B;
} // namespace message

// ---- announcement, on the network
namespace announcement {
constexpr unsigned int kIdent = 1234;
constexpr unsigned int kService = 204;
constexpr unsigned short kPort = 7890;
constexpr unsigned short kCRC = 1100;
constexpr unsigned short kStationCRC = 1101;
constexpr unsigned short kStation = 1103;
constexpr unsigned short kEPGID = 0x0701;
constexpr unsigned short kType = 0x701D;
constexpr unsigned short kFormat = 0x701C;
constexpr unsigned short kStartTime = 0x7011;
constexpr unsigned short kEndTime = 0x7012;
constexpr unsigned short kAddress = 0x7014;
constexpr unsigned short kDestinationPort = 0x7017;
} // namespace announcement

} // namespace wire

#endif
