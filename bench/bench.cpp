// Runs the measurements that the command line names. script/bench calls it.
#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void require(bool bHolds, const char *pWhat) {
    if (!bHolds) {
        std::perror(pWhat);
        std::exit(1);
    }
}

void row(const std::string &name, double dValue, const char *pUnit) {
    std::printf("%s %.3f %s\n", name.c_str(), dValue, pUnit);
    std::fflush(stdout);
}

double rowSpread(const std::string &name, std::vector<double> values, const char *pUnit) {
    const double dMedian = percentile(values, 0.5);
    std::printf("%s %.3f %s %.3f %.3f\n", name.c_str(), dMedian, pUnit, percentile(values, 0),
                percentile(values, 1));
    std::fflush(stdout);
    return dMedian;
}

bool keepsAtMost(const std::string &name, double dValue, double dBound) {
    if (dValue > dBound) {
        std::fprintf(stderr, "bench: %s is %.3f, above its bound of %.3f\n", name.c_str(), dValue, dBound);
    }
    return dValue <= dBound;
}

bool rowAtMost(const std::string &name, double dValue, const char *pUnit, double dBound) {
    row(name, dValue, pUnit);
    return keepsAtMost(name, dValue, dBound);
}

bool rowAtLeast(const std::string &name, double dValue, const char *pUnit, double dBound) {
    row(name, dValue, pUnit);
    if (dValue < dBound) {
        std::fprintf(stderr, "bench: %s is %.3f, below its bound of %.3f\n", name.c_str(), dValue, dBound);
    }
    return dValue >= dBound;
}

double percentile(std::vector<double> &samples, double dShare) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const auto ulIndex = static_cast<size_t>(dShare * static_cast<double>(samples.size() - 1));
    return samples[ulIndex];
}

} // namespace bench

int main(int argc, char **argv) {
    bool bHolds = true;
    const auto seconds = [&](int i) { return i + 1 < argc ? std::atof(argv[i + 1]) : 10.0; };
    for (int i = 1; i < argc; i += 2) {
        if (std::strcmp(argv[i], "relay") == 0) {
            bHolds &= bench::relayBench(seconds(i), {"socat", "multicat"});
        } else if (std::strcmp(argv[i], "seed") == 0) {
            bHolds &= bench::seedBench();
        } else if (std::strcmp(argv[i], "file") == 0) {
            bHolds &= bench::fileBench(seconds(i));
        } else if (std::strcmp(argv[i], "service") == 0) {
            bHolds &= bench::serviceBench(seconds(i));
        } else if (std::strcmp(argv[i], "stall") == 0) {
            bHolds &= bench::stallBench(seconds(i));
        } else {
            std::fprintf(stderr, "usage: pccast-bench {relay|seed|file|service|stall} SECONDS ...\n");
            return 64;
        }
    }
    return bHolds ? 0 : 1;
}
