// Tests of the framework's SEED and CRC-32.
#include <qxapi.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>
#ifdef HAVE_OPENSSL
#include <openssl/evp.h>
#include <openssl/provider.h>
#endif

namespace {

using Bytes = std::vector<unsigned char>;
using Block = std::array<unsigned char, 16>;

struct TestVector {
    Block key, plain, cipher;
};
// RFC 4269, appendix B.
constexpr TestVector kVectors[] = {
    {{},
     {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F},
     {0x5E, 0xBA, 0xC6, 0xE0, 0x05, 0x4E, 0x16, 0x68, 0x19, 0xAF, 0xF1, 0xCC, 0x6D, 0x34, 0x6C, 0xDB}},
    {{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F},
     {},
     {0xC1, 0x1F, 0x22, 0xF2, 0x01, 0x40, 0x50, 0x50, 0x84, 0x48, 0x35, 0x97, 0xE4, 0x37, 0x0F, 0x43}},
    {{0x47, 0x06, 0x48, 0x08, 0x51, 0xE6, 0x1B, 0xE8, 0x5D, 0x74, 0xBF, 0xB3, 0xFD, 0x95, 0x61, 0x85},
     {0x83, 0xA2, 0xF8, 0xA2, 0x88, 0x64, 0x1F, 0xB9, 0xA4, 0xE9, 0xA5, 0xCC, 0x2F, 0x13, 0x1C, 0x7D},
     {0xEE, 0x54, 0xD1, 0x3E, 0xBC, 0xAE, 0x70, 0x6D, 0x22, 0x6B, 0xC3, 0x14, 0x2C, 0xD4, 0x0D, 0x4A}},
    {{0x28, 0xDB, 0xC3, 0xBC, 0x49, 0xFF, 0xD8, 0x7D, 0xCF, 0xA5, 0x09, 0xB1, 0x1D, 0x42, 0x2B, 0xE7},
     {0xB4, 0x1E, 0x6B, 0xE2, 0xEB, 0xA8, 0x4A, 0x14, 0x8E, 0x2E, 0xED, 0x84, 0x59, 0x3C, 0x5E, 0xC7},
     {0x9B, 0x9B, 0x7B, 0xFC, 0xD1, 0x81, 0x3C, 0xB9, 0x5D, 0x0B, 0x36, 0x18, 0xF4, 0x0F, 0x51, 0x22}}};

using Decrypt = void (*)(unsigned char *, unsigned long, const unsigned char *);

class Seed : public testing::TestWithParam<Decrypt> {};
INSTANTIATE_TEST_SUITE_P(Both, Seed, testing::Values(qxapi_seed_decrypt, qxapi_fast_seed_decrypt),
                         [](const auto &Info) { return Info.index == 0 ? "Plain" : "Fast"; });

// Lengths around whole groups of blocks, each with a rest behind that must stay. The data is unaligned. The
// keys take turns, so that a key schedule kept too long is noticed.
TEST_P(Seed, WholeBlocksAreDecryptedAndTheRestIsLeft) {
    for (std::size_t ulBlocks = 0; ulBlocks <= 9; ulBlocks++) {
        for (std::size_t ulRest = 0; ulRest < 16; ulRest += 5) {
            for (const TestVector &vector : kVectors) {
                Bytes data(1), expected(1);
                for (std::size_t i = 0; i < ulBlocks; i++) {
                    data.insert(data.end(), vector.cipher.begin(), vector.cipher.end());
                    expected.insert(expected.end(), vector.plain.begin(), vector.plain.end());
                }
                data.insert(data.end(), ulRest + 1, 0xA5); // one byte beyond what the call may touch
                expected.insert(expected.end(), ulRest + 1, 0xA5);
                GetParam()(data.data() + 1, ulBlocks * 16 + ulRest, vector.key.data());
                ASSERT_EQ(data, expected) << ulBlocks << " blocks, rest " << ulRest;
            }
        }
    }
}

#ifdef HAVE_OPENSSL
TEST_P(Seed, RandomDatagramsAgreeWithAnotherImplementation) {
    OSSL_PROVIDER *pLegacy = OSSL_PROVIDER_load(nullptr, "legacy");
    OSSL_PROVIDER *pDefault = OSSL_PROVIDER_load(nullptr, "default");
    EVP_CIPHER *pCipher = EVP_CIPHER_fetch(nullptr, "SEED-ECB", nullptr);
    if (pCipher == nullptr) {
        GTEST_SKIP() << "this libcrypto has no SEED";
    }
    EVP_CIPHER_CTX *pContext = EVP_CIPHER_CTX_new();
    std::srand(7);
    for (std::size_t ulLength = 16; ulLength <= 1316; ulLength += 100) {
        Bytes key(16), data(ulLength);
        for (Bytes *pBytes : {&key, &data}) {
            for (unsigned char &cByte : *pBytes) {
                cByte = static_cast<unsigned char>(std::rand());
            }
        }
        Bytes expected = data;
        int iOut = 0;
        EVP_DecryptInit_ex2(pContext, pCipher, key.data(), nullptr, nullptr);
        EVP_CIPHER_CTX_set_padding(pContext, 0);
        EVP_DecryptUpdate(pContext, expected.data(), &iOut, data.data(),
                          static_cast<int>(ulLength / 16 * 16));
        GetParam()(data.data(), ulLength, key.data());
        ASSERT_EQ(data, expected) << ulLength << " bytes";
    }
    EVP_CIPHER_CTX_free(pContext);
    EVP_CIPHER_free(pCipher);
    OSSL_PROVIDER_unload(pDefault);
    OSSL_PROVIDER_unload(pLegacy);
}
#endif

TEST(Crc32, KnownValuesHoldAndPiecesAddUp) {
    const std::string digits = "123456789", zeros(32, '\0'), ones(32, '\xFF');
    for (const auto &[sText, uiExpected] :
         {std::pair{digits, 0xCBF43926u}, {zeros, 0x190A55ADu}, {ones, 0xFF6CAB0Bu}, {std::string(), 0u}}) {
        EXPECT_EQ(qxapi_crc32(0xFFFFFFFF, sText.data(), sText.size()), uiExpected) << sText.size();
        for (std::size_t ulSplit = 0; ulSplit <= sText.size(); ulSplit++) {
            const unsigned int uiFirst = qxapi_crc32(0xFFFFFFFF, sText.data(), ulSplit);
            EXPECT_EQ(qxapi_crc32(~uiFirst, sText.data() + ulSplit, sText.size() - ulSplit), uiExpected)
                << ulSplit;
        }
    }
}

} // namespace
