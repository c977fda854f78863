// bench.h - the measurements of script/bench. Each prints rows of "name value unit", separated by blanks, for
// the script's table and plot. Each returns whether its figures keep their bounds.
#ifndef PCCAST_BENCH_H
#define PCCAST_BENCH_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// The clock of all measurements, nanoseconds.
int64_t now();

// Ends the program with errno's reason when bHolds is false: a measurement cannot go on without pWhat.
void require(bool bHolds, const char *pWhat);

// Prints one row.
void row(const std::string &name, double dValue, const char *pUnit);
// Prints one row. Returns whether the figure keeps its bound; one that does not is named on standard error.
bool rowAtMost(const std::string &name, double dValue, const char *pUnit, double dBound);
bool rowAtLeast(const std::string &name, double dValue, const char *pUnit, double dBound);

// Prints the median of the turns' values, with the least and the greatest behind the unit. Returns the
// median.
double rowSpread(const std::string &name, std::vector<double> values, const char *pUnit);
// Returns whether the figure keeps its bound; one that does not is named on standard error.
bool keepsAtMost(const std::string &name, double dValue, double dBound);

// The value that the given share (0 to 1) of the samples stays below; 0 without samples. Sorts the samples.
double percentile(std::vector<double> &samples, double dShare);

// Returns a socket that receives a group on loopback. iBuffer: bytes; 0: the system's own choice.
int openReceiver(const char *pGroup, unsigned short usPort, int iBuffer = 0);
// Returns a socket that sends to a group.
int openSender(const char *pGroup, unsigned short usPort);

// What a run sent and received.
struct Traffic {
    long lSent;
    long lReceived;
    double dSeconds;              // for sending
    std::vector<double> delaysUs; // from sending to receiving, of each received datagram
};
// Sends datagrams of 1316 bytes to the source group, iRate a second, for dSeconds, and receives them from the
// destination group. A datagram is 82 of SEED's 16-byte blocks and four bytes more. Decryption changes whole
// blocks only, so the last four bytes arrive as they were sent: they carry the datagram's number, which tells
// its delay.
Traffic runTraffic(const char *pSourceGroup, const char *pDestinationGroup, unsigned short usPort, int iRate,
                   double dSeconds);

// Writes a transport stream of constant rate for dSeconds of playing. Returns its number of packets. Each
// packet holds its number at kFileNumberAt, 32 bits in the machine's order.
constexpr size_t kFileNumberAt = 184;
long makeFile(const char *pszFile, double dSeconds);
// When a packet of such a file is due after the first.
double dueSeconds(long lPacket);

// Starts the host program in a process of its own. before: words that go before it, such as another
// program's.
pid_t startService(const std::vector<std::string> &before = {});
// Gives a request to the service, as the command line's words. Tries until the service takes it, ten seconds
// at most: else this program ends.
void request(const std::vector<std::string> &words);
// Runs body in a process of its own, which ends with this one.
pid_t inProcess(const std::function<void()> &body);
// Becomes another program, whose output is thrown away. Comes back only if there is no such program.
void become(const std::vector<std::string> &command);

bool relayBench(double dSeconds, const std::vector<std::string> &tools);
bool seedBench();
bool fileBench(double dSeconds);
bool serviceBench(double dSeconds);
bool stallBench(double dSeconds);

} // namespace bench

#endif
