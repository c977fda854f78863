// registry.cpp - the host's registry: a master and a slave text file. The slave overrides the master.
//
// Called by any component that wants a setting, on any thread. Opening a handle reads both files; the
// handle owns their values.
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

constexpr const char *kWho = "QX_OpenRegistry";
// No registry is this large. The limit keeps a wrong path from filling the memory.
constexpr std::size_t kFileSizeMax = std::size_t{1024} * 1024;

struct Registry : ts_qx_registry {
    std::map<std::string, std::string, std::less<>> values;
};

const char *lookUp(ts_qx_registry *pRegistry, const char *pszKeyPath, int *piLength) {
    if (piLength != nullptr) {
        *piLength = 0;
    }
    if (pRegistry == nullptr || pszKeyPath == nullptr) {
        return nullptr;
    }
    const auto &values = static_cast<Registry *>(pRegistry)->values;
    const auto found = values.find(std::string_view(pszKeyPath));
    if (found == values.end()) {
        return nullptr;
    }
    if (piLength != nullptr) {
        *piLength = static_cast<int>(found->second.size());
    }
    return found->second.c_str();
}

constexpr ts_qx_registry_operations kOperations{lookUp};

std::string_view withoutBlanks(std::string_view text) {
    constexpr const char *kBlanks = " \t\r";
    const std::size_t ulFirst = text.find_first_not_of(kBlanks);
    if (ulFirst == std::string_view::npos) {
        return {};
    }
    return text.substr(ulFirst, text.find_last_not_of(kBlanks) - ulFirst + 1);
}

// Reads a whole regular file. Returns 0 or an errno.
int readFile(const std::string &path, std::string &content) {
    const int iFile = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (iFile < 0) {
        return errno;
    }
    const std::unique_ptr<const int, void (*)(const int *)> closed(&iFile,
                                                                   [](const int *pFile) { close(*pFile); });
    struct stat status;
    if (fstat(iFile, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    char piece[4096];
    for (;;) {
        const ssize_t lRead = read(iFile, piece, sizeof piece);
        if (lRead == 0) {
            return 0;
        }
        if (lRead < 0 && errno != EINTR) {
            return errno;
        }
        if (lRead > 0) {
            content.append(piece, static_cast<std::size_t>(lRead));
        }
        if (content.size() > kFileSizeMax) {
            return EFBIG;
        }
    }
}

// Adds the keys of one file. A missing file is no error: a machine without settings has none.
// Returns whether the file was read.
bool addFile(Registry &registry, const char *pszPath) {
    if (pszPath == nullptr) {
        return false;
    }
    const char *pszRoot = std::getenv("QX_REGISTRY_ROOT");
    const std::string path = std::string(pszRoot != nullptr ? pszRoot : "") + pszPath;
    std::string content;
    if (const int iErrno = readFile(path, content)) {
        if (iErrno != ENOENT) {
            frameworkReport(kWho, "%s is left out: %s", path.c_str(), std::strerror(iErrno));
        }
        return false;
    }
    std::string_view rest = content;
    for (unsigned long ulLine = 1; !rest.empty(); ulLine++) {
        const std::size_t ulEnd = std::min(rest.find('\n'), rest.size());
        const std::string_view line = withoutBlanks(rest.substr(0, ulEnd));
        rest.remove_prefix(std::min(ulEnd + 1, rest.size()));
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::size_t ulEqual = line.find('=');
        const std::string_view key = withoutBlanks(line.substr(0, std::min(ulEqual, line.size())));
        if (ulEqual == std::string_view::npos || key.empty() || line.find('\0') != std::string_view::npos) {
            frameworkReport(kWho, "%s:%lu is no key=value line, passed over", path.c_str(), ulLine);
            continue;
        }
        registry.values.insert_or_assign(std::string(key),
                                         std::string(withoutBlanks(line.substr(ulEqual + 1))));
    }
    return true;
}

} // namespace

struct ts_qx_registry *QX_OpenRegistry(const char *pszMaster, const char *pszSlave, unsigned int uiFlags) {
    (void)uiFlags;
    try {
        auto registry = std::make_unique<Registry>();
        registry->pOperations = &kOperations;
        const bool bMaster = addFile(*registry, pszMaster);
        const bool bSlave = addFile(*registry, pszSlave);
        return bMaster || bSlave ? registry.release() : nullptr;
    } catch (const std::bad_alloc &) {
        frameworkReport(kWho, "no memory for the registry");
        return nullptr;
    }
}

void QX_CloseRegistry(struct ts_qx_registry *pRegistry) {
    delete static_cast<Registry *>(pRegistry);
}
