#include "fileaccess.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

constexpr const char *kAccessList = "system.posix_acl_access";

std::vector<gid_t> groupsOf(uid_t uiUser) {
    struct passwd entry {};
    struct passwd *pEntry = nullptr;
    std::array<char, 4096> aTexts{};
    if (getpwuid_r(uiUser, &entry, aTexts.data(), aTexts.size(), &pEntry) != 0 || pEntry == nullptr) {
        return {};
    }
    int iGroups = 0;
    getgrouplist(pEntry->pw_name, pEntry->pw_gid, nullptr, &iGroups); // how many there are
    std::vector<gid_t> groups(static_cast<size_t>(iGroups));
    getgrouplist(pEntry->pw_name, pEntry->pw_gid, groups.data(), &iGroups);
    return groups;
}

// uiWanted: the bits of "others", S_IROTH or S_IXOTH.
bool isOpen(const std::string &sPath, uid_t uiUser, const std::vector<gid_t> &groups, mode_t uiWanted) {
    struct stat state {};
    if (stat(sPath.c_str(), &state) != 0 || getxattr(sPath.c_str(), kAccessList, nullptr, 0) > 0) {
        return true; // not for us to judge
    }
    const bool bGroup = std::find(groups.begin(), groups.end(), state.st_gid) != groups.end();
    const int iShift = state.st_uid == uiUser ? 6 : bGroup ? 3 : 0;
    return (state.st_mode >> iShift & uiWanted) != 0;
}

} // namespace

std::string closedTo(const std::string &sPath, uid_t uiUser) {
    if (uiUser == 0) {
        return {}; // root may read everything
    }
    const std::vector<gid_t> groups = groupsOf(uiUser);
    for (size_t uEnd = 0; uEnd != std::string::npos; uEnd = sPath.find('/', uEnd + 1)) {
        std::string sFolder = uEnd == 0 ? "/" : sPath.substr(0, uEnd);
        if (!isOpen(sFolder, uiUser, groups, S_IXOTH)) {
            return sFolder;
        }
    }
    return isOpen(sPath, uiUser, groups, S_IROTH) ? "" : sPath;
}
