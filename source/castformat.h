// castformat.h - the content format families, and the station file that the ASF casts have in common.
#ifndef PCCAST_CASTFORMAT_H
#define PCCAST_CASTFORMAT_H

#include <pccast/castinfo.h>

// The station description of the ASF casts: sent to the receivers as it is, and given to the ASF caster.
constexpr const char *kStationFile = "/fixdata/bypass.nsc";

inline bool isASFFormat(unsigned long ulFormat) {
    return ulFormat == CAST_FORMAT_ASF || ulFormat == CAST_FORMAT_ASF_2;
}

inline bool isH264Format(unsigned long ulFormat) {
    return ulFormat == CAST_FORMAT_TS || (ulFormat & ~0x20ul) == CAST_FORMAT_TS_2;
}

#endif
