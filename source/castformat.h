// castformat.h - the families of cast types and content formats, and the station file of the ASF casts.
#ifndef PCCAST_CASTFORMAT_H
#define PCCAST_CASTFORMAT_H

#include <pccast/castinfo.h>

// The station description of the ASF casts: sent to the receivers as it is, and given to the ASF caster.
constexpr const char *kStationFile = "/fixdata/bypass.nsc";

inline bool isStream(unsigned long ulCASTType) {
    return ulCASTType == CAST_TYPE_STREAM || ulCASTType == CAST_TYPE_STREAM_2;
}

inline bool isASFFormat(unsigned long ulFormat) {
    return ulFormat == CAST_FORMAT_ASF || ulFormat == CAST_FORMAT_ASF_2;
}

inline bool isH264Format(unsigned long ulFormat) {
    return ulFormat == CAST_FORMAT_TS || (ulFormat & ~0x20ul) == CAST_FORMAT_TS_2;
}

#endif
