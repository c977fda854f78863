// registry.cpp - the host's registry: a master and a slave text file, the slave overriding the master.
//
// Called by whoever asks for a setting, on any thread; each handle owns the values it read when it was
// opened.
#include "report.h"

#include <qxapi.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *WHO = "QX_OpenRegistry";
constexpr size_t FILE_SIZE_MAX =
    1024 * 1024; // far beyond any registry; a wrong path must not fill the memory

struct REGISTRY : ts_qx_registry {
    std::map<std::string, std::string, std::less<>> Values;
};

const char *lookUp(ts_qx_registry *pRegistry, const char *pszKeyPath, int *piLength) {
    if (piLength != nullptr)
        *piLength = 0;
    if (pRegistry == nullptr || pszKeyPath == nullptr)
        return nullptr;
    const auto &Values = static_cast<REGISTRY *>(pRegistry)->Values;
    const auto Found = Values.find(std::string_view(pszKeyPath));
    if (Found == Values.end())
        return nullptr;
    if (piLength != nullptr)
        *piLength = static_cast<int>(Found->second.size());
    return Found->second.c_str();
}

constexpr ts_qx_registry_operations Operations{lookUp};

std::string_view withoutBlanks(std::string_view Text) {
    constexpr const char *BLANKS = " \t\r";
    const size_t ulFirst = Text.find_first_not_of(BLANKS);
    if (ulFirst == std::string_view::npos)
        return {};
    return Text.substr(ulFirst, Text.find_last_not_of(BLANKS) - ulFirst + 1);
}

// Reads a whole regular file. Returns 0 or an errno.
int readFile(const std::string &Path, std::string &Content) {
    const int iFile = open(Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (iFile < 0)
        return errno;
    const std::unique_ptr<const int, void (*)(const int *)> Closed(&iFile,
                                                                   [](const int *pFile) { close(*pFile); });
    struct stat Status;
    if (fstat(iFile, &Status) != 0)
        return errno;
    if (!S_ISREG(Status.st_mode))
        return S_ISDIR(Status.st_mode) ? EISDIR : EINVAL;
    char Piece[4096];
    for (;;) {
        const ssize_t lRead = read(iFile, Piece, sizeof Piece);
        if (lRead == 0)
            return 0;
        if (lRead < 0 && errno != EINTR)
            return errno;
        if (lRead > 0)
            Content.append(Piece, static_cast<size_t>(lRead));
        if (Content.size() > FILE_SIZE_MAX)
            return EFBIG;
    }
}

// Adds what one file says. A file that is not there is no fault: a machine without settings has none.
// Returns whether the file was read.
bool addFile(REGISTRY &Registry, const char *pszPath) {
    if (pszPath == nullptr)
        return false;
    const char *pszRoot = getenv("QX_REGISTRY_ROOT");
    const std::string Path = std::string(pszRoot != nullptr ? pszRoot : "") + pszPath;
    std::string Content;
    if (const int iErrno = readFile(Path, Content)) {
        if (iErrno != ENOENT)
            frameworkReport(WHO, "%s is left out: %s", Path.c_str(), strerror(iErrno));
        return false;
    }
    std::string_view Rest = Content;
    for (unsigned long ulLine = 1; !Rest.empty(); ulLine++) {
        const size_t ulEnd = std::min(Rest.find('\n'), Rest.size());
        const std::string_view Line = withoutBlanks(Rest.substr(0, ulEnd));
        Rest.remove_prefix(std::min(ulEnd + 1, Rest.size()));
        if (Line.empty() || Line.front() == '#')
            continue;
        const size_t ulEqual = Line.find('=');
        const std::string_view Key = withoutBlanks(Line.substr(0, std::min(ulEqual, Line.size())));
        if (ulEqual == std::string_view::npos || Key.empty() || Line.find('\0') != std::string_view::npos) {
            frameworkReport(WHO, "%s:%lu is no key=value line, passed over", Path.c_str(), ulLine);
            continue;
        }
        Registry.Values.insert_or_assign(std::string(Key),
                                         std::string(withoutBlanks(Line.substr(ulEqual + 1))));
    }
    return true;
}

} // namespace

struct ts_qx_registry *QX_OpenRegistry(const char *pszMaster, const char *pszSlave, unsigned int uiFlags) {
    (void)uiFlags;
    try {
        auto Registry = std::make_unique<REGISTRY>();
        Registry->pOperations = &Operations;
        const bool bMaster = addFile(*Registry, pszMaster);
        const bool bSlave = addFile(*Registry, pszSlave);
        return bMaster || bSlave ? Registry.release() : nullptr;
    } catch (const std::bad_alloc &) {
        frameworkReport(WHO, "no memory for the registry");
        return nullptr;
    }
}

void QX_CloseRegistry(struct ts_qx_registry *pRegistry) {
    delete static_cast<REGISTRY *>(pRegistry);
}
