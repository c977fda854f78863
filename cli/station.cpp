// pccast station - writes an ASF file's station file, or shows one.
#include "command.h"
#include "commands.h"
#include "safetext.h"

#include "asffile.h"
#include "casttarget.h"
#include "nsc.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct StationOptions {
    std::string sFile;
    std::string sGroup;
    unsigned int uiPort = 0;
    int iHops = -1;
    std::string sName;
    std::string sOutput;
    bool bShow = false;
};

// Reads the head of an ASF file, up to its first data packet, as the one format of the station. Returns
// EXIT_DONE, or an exit code after saying what is wrong.
int readFormatOf(const std::string &sFile, NscFormat &format) {
    std::string sReason;
    const int iFile = fileOpenRegular(sFile.c_str(), sReason);
    if (iFile < 0) {
        return sayAndReturn(EXIT_NO_INPUT, sFile + ": " + sReason);
    }
    FileWindow window;
    windowOpen(window, iFile, kAsfHeaderMax);
    AsfHeader header;
    const bool bRead = asfReadHeader(window, header, sReason);
    if (bRead) {
        // The header object, and the head of the data object. Other objects may lie between them.
        const std::pair<unsigned long long, std::size_t> aPart[] = {
            {0, header.ullHeaderSize}, {header.ullDataOffset, kAsfDataHeaderSize}};
        for (const auto &[ullOffset, ulSize] : aPart) {
            std::size_t ulHave = 0;
            const unsigned char *p = windowBytes(window, ullOffset, ulSize, ulHave);
            format.header.insert(format.header.end(), p, p + std::min(ulHave, ulSize));
        }
    }
    close(iFile);
    if (!bRead) {
        return sayAndReturn(EXIT_BAD_DATA, sFile + " cannot be sent as a station: " + sReason);
    }
    format.uiIndex = 1;
    format.uiFormatID = 1;
    return EXIT_DONE;
}

int sayNotWritten(const std::string &sFile, const std::string &sReason) {
    return sayAndReturn(EXIT_INTERNAL, sFile + " cannot be written: " + sReason);
}

// Writes the whole text to sFile or leaves the old file as it is: the service may be reading it. The new file
// grows under a name that nobody could guess and plant a link at.
int replaceFile(const std::string &sFile, const std::string &sText) {
    struct stat status {};
    if (stat(sFile.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return sayNotWritten(sFile, "it is not a regular file");
    }
    std::string sNew = sFile + ".XXXXXX";
    const int iFile = mkostemp(sNew.data(), O_CLOEXEC);
    if (iFile < 0) {
        return sayNotWritten(sFile, std::strerror(errno));
    }
    const mode_t uiMask = umask(0);
    umask(uiMask);
    bool bWritten = fchmod(iFile, 0644 & ~uiMask) == 0; // mkostemp lets the owner alone read it
    for (std::size_t ulAt = 0; bWritten && ulAt < sText.size();) {
        const ssize_t lWritten = write(iFile, sText.data() + ulAt, sText.size() - ulAt);
        bWritten = lWritten > 0;
        ulAt += bWritten ? static_cast<std::size_t>(lWritten) : 0;
    }
    // A call that succeeds leaves the reason why another has failed.
    bWritten = close(iFile) == 0 && bWritten && std::rename(sNew.c_str(), sFile.c_str()) == 0;
    if (!bWritten) {
        const int iError = errno;
        unlink(sNew.c_str());
        return sayNotWritten(sFile, std::strerror(iError));
    }
    return EXIT_DONE;
}

int writeStation(const StationOptions &options) {
    NscStation station;
    std::string sReason;
    if (options.sGroup.empty() || options.uiPort == 0) {
        return sayAndReturn(EXIT_USAGE, "a station needs --group ADDRESS and --port N");
    }
    if (!castTargetCheckAddress(options.sGroup, sReason)) {
        return sayAndReturn(EXIT_USAGE, "--group: " + sReason);
    }
    NscFormat format;
    const int iExit = readFormatOf(options.sFile, format);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    station.sName = options.sName;
    station.sAddress = options.sGroup;
    station.usPort = static_cast<unsigned short>(options.uiPort);
    station.iHops = options.iHops;
    station.formats.push_back(std::move(format));
    const std::string sText = nscWrite(station);
    if (!options.sOutput.empty() && options.sOutput != "-") {
        return replaceFile(options.sOutput, sText);
    }
    std::fwrite(sText.data(), 1, sText.size(), stdout);
    return EXIT_DONE;
}

int showStation(const StationOptions &options) {
    NscStation station;
    std::string sReason;
    if (!nscRead(options.sFile.c_str(), station, sReason)) {
        const bool bThere = access(options.sFile.c_str(), R_OK) == 0;
        return sayAndReturn(bThere ? EXIT_BAD_DATA : EXIT_NO_INPUT, options.sFile + ": " + sReason);
    }
    std::printf("name        %s\n", textForTerminal(station.sName).c_str());
    std::printf("version     %s\n", textForTerminal(station.sVersion).c_str());
    std::printf("target      %s:%u\n", station.sAddress.c_str(), station.usPort);
    std::printf("hop limit   %s\n", station.iHops < 0 ? "not named" : std::to_string(station.iHops).c_str());
    for (const NscFormat &format : station.formats) {
        std::printf("format %-4u Format ID %u, header of %zu bytes%s%s\n", format.uiIndex, format.uiFormatID,
                    format.header.size(), format.sDescription.empty() ? "" : ", ",
                    textForTerminal(format.sDescription).c_str());
    }
    return EXIT_DONE;
}

} // namespace

void addStationCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "station", "write the station file of an ASF file, or show one");
    auto options = std::make_shared<StationOptions>();
    command.option("FILE", options->sFile, "the ASF file; with --show the station file").type("").required();
    const Option show = command.flag("--show", options->bShow, "print what the station file says");
    command.option("--group", options->sGroup, "the group that its packets go to")
        .type("ADDRESS")
        .excludes(show);
    command.option("--port", options->uiPort, "the UDP port that they go to")
        .type("N")
        .within(1, 65535)
        .excludes(show);
    command.option("--ttl", options->iHops, "multicast hop limit (default: the service uses 16)")
        .type("N")
        .within(0, 255)
        .excludes(show);
    command.option("--name", options->sName, "the station's name").type("TEXT").excludes(show);
    command.option("-o,--output", options->sOutput, "write to this file instead of standard output")
        .type("FILE")
        .excludes(show);
    command.footer(helpExample(
        "pccast station film.asf --group 239.192.48.179 --port 8080 --ttl 16 -o /fixdata/bypass.nsc"));
    command.action([options, &iExitCode] {
        iExitCode = options->bShow ? showStation(*options) : writeStation(*options);
    });
}
