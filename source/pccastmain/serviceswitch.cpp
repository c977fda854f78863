// Looks a service up in the registry. The contract stands in serviceswitch.h.
#include "serviceswitch.h"

#include "pccastmain.h"

#include <qxapi.h>

#include <cstdio>
#include <memory>
#include <strings.h>

namespace {

constexpr const char *kMaster = "/reg/reg0/master.reg";
constexpr const char *kSlave = "/reg/reg1/slave.reg";
constexpr unsigned int kFlags = 0x10000002;

struct CloseRegistry {
    void operator()(ts_qx_registry *pRegistry) const { QX_CloseRegistry(pRegistry); }
};

} // namespace

int verifyINBTService(const char *keyPath) {
    if (keyPath == nullptr) {
        return 1;
    }
    const std::unique_ptr<ts_qx_registry, CloseRegistry> pRegistry(QX_OpenRegistry(kMaster, kSlave, kFlags));
    if (pRegistry == nullptr) {
        return 1;
    }
    int iLength = 0;
    const char *pValue = pRegistry->pOperations->pLookup(pRegistry.get(), keyPath, &iLength);
    if (pValue == nullptr || iLength <= 0 ||
        strncasecmp("DISABLE", pValue, static_cast<size_t>(iLength)) != 0) {
        return 1;
    }
    std::printf("[%s:%d] \e[1;31m %s service is DISABLED by REGISTRY \e[1;41m[ALARM]\e[0m\n", kModule,
                __LINE__, keyPath);
    return 0;
}
