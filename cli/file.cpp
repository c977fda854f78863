// pccast file - submits the cast of a stored file.
#include "command.h"
#include "commands.h"
#include "fileaccess.h"
#include "localsocket.h"
#include "request.h"
#include "submit.h"

#include "asffile.h"

#include <fcntl.h>
#include <qxapi.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct FileOptions {
    RequestOptions request;
    std::string sPath;
    std::string sDestination;
    std::string sFormat;
    std::string sMSID = "0";
};

// Finds the absolute path: the service has another working folder. Returns EXIT_DONE or EXIT_NO_INPUT.
int findFile(const std::string &sPath, std::string *psWhole) {
    std::array<char, PATH_MAX> aWhole{};
    struct stat state {};
    if (realpath(sPath.c_str(), aWhole.data()) == nullptr || stat(aWhole.data(), &state) != 0 ||
        access(aWhole.data(), R_OK) != 0) {
        return sayAndReturn(EXIT_NO_INPUT, sPath + ": " + std::strerror(errno));
    }
    if (!S_ISREG(state.st_mode)) {
        return sayAndReturn(EXIT_NO_INPUT,
                            sPath + " is not a regular file; give a stored ASF or transport stream "
                                    "file");
    }
    *psWhole = aWhole.data();
    return EXIT_DONE;
}

bool beginsAsASF(const std::string &sPath) {
    std::array<unsigned char, 16> aHead{};
    const int iFile = open(sPath.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t lRead = iFile < 0 ? -1 : read(iFile, aHead.data(), aHead.size());
    if (iFile >= 0) {
        close(iFile);
    }
    return lRead > 0 && asfRecognises(aHead.data(), static_cast<size_t>(lRead));
}

// Finds the format from the file's content, with the reader that will play it. Refuses what that reader
// cannot play, as it would only fail later, on the air.
int findFormat(const std::string &sPath, unsigned long *pulFormat) {
    const std::unique_ptr<ts_qxapi_stream, decltype(&qxapi_close_stream)> pStream(
        qxapi_open_stream(sPath.c_str()), qxapi_close_stream);
    if (pStream == nullptr || pStream->pStart(pStream.get()) != 1) {
        return sayAndReturn(EXIT_BAD_DATA,
                            sPath +
                                (pStream == nullptr ? " is neither an ASF file nor a transport stream"
                                                    : " cannot be played") +
                                " (the reason is above); nothing is requested; --format skips "
                                "this check");
    }
    *pulFormat = beginsAsASF(sPath) ? CAST_FORMAT_ASF : CAST_FORMAT_TS;
    return EXIT_DONE;
}

// The service plays the file, so its user must be able to read it. Returns EXIT_DONE or EXIT_NO_INPUT.
int checkReadable(const std::string &sFile, uid_t uiUser) {
    const std::string sClosed = uiUser == geteuid() ? "" : closedTo(sFile, uiUser);
    if (sClosed.empty()) {
        return EXIT_DONE;
    }
    return sayAndReturn(EXIT_NO_INPUT, sFile + ": the service runs as the user " + nameOfUser(uiUser) +
                                           ", who may not " +
                                           (sClosed == sFile ? "read it" : "enter " + sClosed) +
                                           "; open it to that user, or put the file elsewhere");
}

int castFile(const FileOptions &options) {
    CastRequest request{};
    RequestTimes times{};
    Service service{};
    CastIdentity &identity = request.identity;
    int iExit = checkArguments(
        {{"--to", readEndpoint(options.sDestination, &request.sDestination, &identity.usPort)},
         {"--format", options.sFormat.empty() ? "" : readFormat(options.sFormat, &identity.ulFormat)},
         {"--stream-id", readNumber(options.sMSID, 0xFFFF, &request.ulMSID)}});
    if (iExit == EXIT_DONE) {
        iExit = readRequestOptions(options.request, kCastDefaultFor, &times);
    }
    if (iExit == EXIT_DONE) {
        iExit = findFile(options.sPath, &request.sFile);
    }
    if (iExit == EXIT_DONE && options.sFormat.empty()) {
        iExit = findFormat(request.sFile, &identity.ulFormat);
    }
    if (iExit == EXIT_DONE) {
        iExit = reachForRequest(options.request, kCastDefaultFor, ServiceKind::Casts, &service, &times);
    }
    if (iExit == EXIT_DONE) {
        iExit = checkReadable(request.sFile, service.uiUser);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }

    identity.ulEPGID = times.ulEPGID;
    identity.ulType = CAST_TYPE_FILE;
    identity.ulST = times.ulST;
    identity.ulET = times.ulET;
    request.ulCT = times.ulCT;
    return requestCast(options.request, service, request,
                       "cast of " + request.sFile + " to " + options.sDestination);
}

} // namespace

void addFileCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "file", "cast a stored ASF or transport stream file");
    auto options = std::make_shared<FileOptions>();
    command.option("PATH", options->sPath, "the file").type("").required();
    command
        .option("--to", options->sDestination,
                "the group that it is played to; an ASF file goes to the group that its station file names")
        .type("ADDRESS:PORT")
        .required();
    addRequestOptions(command, options->request, "1h; the file plays to its end anyway");
    command.option("--format", options->sFormat, "what it is (default: found from its content)")
        .type("ts|asf|NUMBER");
    command.option("--stream-id", options->sMSID, "the stream identifier (default 0)").type("N");
    command.footer("Prints the cast's identity, which pccast stop takes back.\n\n" +
                   helpExample("pccast file /srv/film.ts --to 239.1.2.3:5000 --epg 8 --start 20:15"));
    setRequestAction(
        command, [options] { return castFile(*options); }, iExitCode);
}
