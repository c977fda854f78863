// Measures SEED on buffers of 1316 bytes. Ours and OpenSSL's take turns.
#include "bench.h"

#include <qxapi.h>

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <array>
#include <cstdio>

namespace bench {

namespace {

constexpr size_t kDatagram = 1316;
constexpr int kTurns = 7;
constexpr double kTurnSeconds = 0.4;

// Runs the operation for a turn. Returns megabytes a second.
template <typename Operation>
double speed(Operation operation) {
    const int64_t lStart = now();
    long lRuns = 0;
    double dSpent = 0;
    while (dSpent < kTurnSeconds) {
        for (int i = 0; i < 100; ++i) {
            operation();
        }
        lRuns += 100;
        dSpent = static_cast<double>(now() - lStart) / 1e9;
    }
    return static_cast<double>(lRuns) * kDatagram / 1e6 / dSpent;
}

} // namespace

bool seedBench() {
    std::array<unsigned char, kDatagram> data{};
    const std::array<unsigned char, 16> key{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

    OSSL_PROVIDER *pLegacy = OSSL_PROVIDER_load(nullptr, "legacy");
    OSSL_PROVIDER *pDefault = OSSL_PROVIDER_load(nullptr, "default");
    EVP_CIPHER *pCipher = EVP_CIPHER_fetch(nullptr, "SEED-ECB", nullptr);
    EVP_CIPHER_CTX *pContext = EVP_CIPHER_CTX_new();
    if (pLegacy == nullptr || pDefault == nullptr || pCipher == nullptr || pContext == nullptr ||
        EVP_DecryptInit_ex(pContext, pCipher, nullptr, key.data(), nullptr) != 1) {
        std::fprintf(stderr, "seed: this OpenSSL has no SEED\n");
        return false;
    }
    EVP_CIPHER_CTX_set_padding(pContext, 0);
    std::vector<double> plain, fast, open;
    for (int i = 0; i < kTurns; ++i) {
        plain.push_back(speed([&] { qxapi_seed_decrypt(data.data(), data.size(), key.data()); }));
        fast.push_back(speed([&] { qxapi_fast_seed_decrypt(data.data(), data.size(), key.data()); }));
        open.push_back(speed([&] {
            int iLength = 0;
            EVP_DecryptUpdate(pContext, data.data(), &iLength, data.data(), kDatagram / 16 * 16);
        }));
    }
    EVP_CIPHER_CTX_free(pContext);
    EVP_CIPHER_free(pCipher);
    OSSL_PROVIDER_unload(pDefault);
    OSSL_PROVIDER_unload(pLegacy);

    const double dPlain = percentile(plain, 0.5), dFast = percentile(fast, 0.5),
                 dOpen = percentile(open, 0.5);
    row("seed.openssl", dOpen, "MB/s");
    bool bHolds = rowAtLeast("seed.plain", dPlain, "MB/s", dOpen);
    bHolds &= rowAtLeast("seed.fast", dFast, "MB/s", dOpen);
    return bHolds;
}

} // namespace bench
