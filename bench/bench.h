// bench.h - the measurements of script/bench. Each prints its rows as "name value unit" with blanks between,
// for the script's table and plot, and returns whether what it measured holds.
#ifndef PCCAST_BENCH_H
#define PCCAST_BENCH_H

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The clock of all measurements, nanoseconds.
int64_t now();

// Ends the program with errno's reason when a thing that every measurement needs does not hold.
void require(bool bHolds, const char *pWhat);

// Prints one row.
void row(const std::string &name, double dValue, const char *pUnit);
// The same for a figure that is to hold. Returns whether it does; one that does not is named on standard
// error.
bool rowAtMost(const std::string &name, double dValue, const char *pUnit, double dBound);
bool rowAtLeast(const std::string &name, double dValue, const char *pUnit, double dBound);

// The value below which the given share (0 to 1) of the samples lies; 0 for none. Sorts the samples.
double percentile(std::vector<double> &samples, double dShare);

// Sends iCount datagrams of 1316 bytes to a group at iRate a second and receives what arrives at another.
struct Traffic {
    long lSent;
    long lReceived;
    std::vector<double> delaysUs; // from sending to receiving, of each received datagram
};
// A datagram is 82 of SEED's 16-byte blocks and four bytes more. Decryption changes whole blocks alone, so
// the last four bytes arrive as they were sent; they carry the datagram's number, by which its delay is
// known.
Traffic runTraffic(const char *pSourceGroup, const char *pDestinationGroup, unsigned short usPort, int iRate,
                   double dSeconds);

bool relayBench(double dSeconds, const std::vector<std::string> &tools);
bool seedBench();
bool fileBench(double dSeconds);
bool serviceBench(double dSeconds);

} // namespace bench

#endif
