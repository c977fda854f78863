// seed.cpp - SEED (RFC 4269), decryption of whole blocks in place.
//
// Called by relays for every datagram, on their own threads. Owns each thread's last key schedule. The tables
// are computed at compile time from the cipher's definition.
#include <qxapi.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t BLOCK = 16;
constexpr size_t ROUNDS = 16;
// Blocks worked on at once: one block is a long chain of dependent look-ups, several fill the waiting time.
// That takes loops over the lanes that are unrolled, which compilers leave undone at -O2 unless told.
constexpr size_t LANES = 4;
#define UNROLL_LANES _Pragma("GCC unroll 4")

// ---- tables ----------------------------------------------------------------------------------------------

constexpr uint32_t multiplyField(uint32_t uiLeft, uint32_t uiRight) {
    uint32_t uiProduct = 0;
    for (; uiRight != 0; uiRight >>= 1) {
        if ((uiRight & 1) != 0)
            uiProduct ^= uiLeft;
        uiLeft <<= 1;
        if ((uiLeft & 0x100) != 0)
            uiLeft ^= 0x163; // x^8 + x^6 + x^5 + x + 1
    }
    return uiProduct;
}

constexpr uint32_t powerField(uint32_t uiBase, unsigned int uiExponent) {
    uint32_t uiPower = 1;
    for (; uiExponent != 0; uiExponent >>= 1) {
        if ((uiExponent & 1) != 0)
            uiPower = multiplyField(uiPower, uiBase);
        uiBase = multiplyField(uiBase, uiBase);
    }
    return uiPower;
}

// One of the two S-boxes: Matrix * x^exponent + constant over bits, the most significant bit first.
struct SBOX {
    std::array<uint32_t, 8> Matrix;
    unsigned int uiExponent;
    uint32_t uiConstant;
};
constexpr SBOX Sbox[2] = {
    {{0b10001010, 0b11111110, 0b10000101, 0b01000010, 0b01000101, 0b00100001, 0b10001000, 0b00010100},
     247,
     169},
    {{0b01000101, 0b10000101, 0b11111110, 0b00100001, 0b10001010, 0b10001000, 0b01000010, 0b00010100},
     251,
     56}};

constexpr uint32_t substitute(const SBOX &Box, uint32_t uiByte) {
    const uint32_t uiPower = powerField(uiByte, Box.uiExponent);
    uint32_t uiResult = 0;
    for (const uint32_t uiRow : Box.Matrix) {
        uint32_t uiBits = uiRow & uiPower;
        uiBits ^= uiBits >> 4;
        uiBits ^= uiBits >> 2;
        uiBits ^= uiBits >> 1;
        uiResult = (uiResult << 1) | (uiBits & 1);
    }
    return uiResult ^ Box.uiConstant;
}

// MergedG[j][x]: what byte j of G's argument, when it is x, contributes to the result.
using MERGED = std::array<std::array<uint32_t, 256>, 4>;

constexpr MERGED makeMerged() {
    constexpr uint32_t Mask[4] = {0xFC, 0xF3, 0xCF, 0x3F};
    MERGED Merged{};
    for (size_t ulPosition = 0; ulPosition < 4; ulPosition++) {
        for (uint32_t uiByte = 0; uiByte < 256; uiByte++) {
            const uint32_t uiSubstituted = substitute(Sbox[ulPosition % 2], uiByte);
            for (size_t ulTo = 0; ulTo < 4; ulTo++)
                Merged[ulPosition][uiByte] |= (uiSubstituted & Mask[(ulTo + ulPosition) % 4]) << (8 * ulTo);
        }
    }
    return Merged;
}

constexpr MERGED MergedG = makeMerged();

inline uint32_t G(uint32_t uiWord) {
    return MergedG[0][uiWord & 0xFF] ^ MergedG[1][(uiWord >> 8) & 0xFF] ^ MergedG[2][(uiWord >> 16) & 0xFF] ^
           MergedG[3][uiWord >> 24];
}

// ---- key schedule ----------------------------------------------------------------------------------------

struct ROUND_KEY {
    uint32_t uiLeft;
    uint32_t uiRight;
};
using SCHEDULE = std::array<ROUND_KEY, ROUNDS>; // in the order of decryption

inline uint32_t loadWord(const unsigned char *pByte) {
    return (uint32_t{pByte[0]} << 24) | (uint32_t{pByte[1]} << 16) | (uint32_t{pByte[2]} << 8) | pByte[3];
}

inline void storeWord(unsigned char *pByte, uint32_t uiWord) {
    pByte[0] = static_cast<unsigned char>(uiWord >> 24);
    pByte[1] = static_cast<unsigned char>(uiWord >> 16);
    pByte[2] = static_cast<unsigned char>(uiWord >> 8);
    pByte[3] = static_cast<unsigned char>(uiWord);
}

void makeSchedule(SCHEDULE &Schedule, const unsigned char *pKey) {
    uint64_t ulLeft = (uint64_t{loadWord(pKey)} << 32) | loadWord(pKey + 4);
    uint64_t ulRight = (uint64_t{loadWord(pKey + 8)} << 32) | loadWord(pKey + 12);
    uint32_t uiConstant = 0x9E3779B9;
    for (size_t ulRound = 0; ulRound < ROUNDS; ulRound++) {
        const auto uiLeftHigh = static_cast<uint32_t>(ulLeft >> 32),
                   uiLeftLow = static_cast<uint32_t>(ulLeft);
        const auto uiRightHigh = static_cast<uint32_t>(ulRight >> 32),
                   uiRightLow = static_cast<uint32_t>(ulRight);
        Schedule[ROUNDS - 1 - ulRound] = {G(uiLeftHigh + uiRightHigh - uiConstant),
                                          G(uiLeftLow - uiRightLow + uiConstant)};
        if (ulRound % 2 == 0)
            ulLeft = (ulLeft >> 8) | (ulLeft << 56);
        else
            ulRight = (ulRight << 8) | (ulRight >> 56);
        uiConstant = (uiConstant << 1) | (uiConstant >> 31);
    }
}

// ---- blocks ----------------------------------------------------------------------------------------------

// Decrypts COUNT neighbouring blocks.
template <size_t COUNT>
inline void decryptBlocks(unsigned char *pData, const SCHEDULE &Schedule) {
    uint32_t L0[COUNT], L1[COUNT], R0[COUNT], R1[COUNT];
    UNROLL_LANES
    for (size_t i = 0; i < COUNT; i++) {
        L0[i] = loadWord(pData + i * BLOCK);
        L1[i] = loadWord(pData + i * BLOCK + 4);
        R0[i] = loadWord(pData + i * BLOCK + 8);
        R1[i] = loadWord(pData + i * BLOCK + 12);
    }
    // The step that both halves take in turn: Half ^= F(Other).
    const auto Round = [](uint32_t(&Half0)[COUNT], uint32_t(&Half1)[COUNT], const uint32_t(&Other0)[COUNT],
                          const uint32_t(&Other1)[COUNT], const ROUND_KEY &Key) {
        UNROLL_LANES
        for (size_t i = 0; i < COUNT; i++) {
            uint32_t t0 = Other0[i] ^ Key.uiLeft;
            uint32_t t1 = G(Other1[i] ^ Key.uiRight ^ t0);
            t0 = G(t0 + t1);
            t1 = G(t1 + t0);
            Half0[i] ^= t0 + t1;
            Half1[i] ^= t1;
        }
    };
    for (size_t ulRound = 0; ulRound < ROUNDS; ulRound += 2) {
        Round(L0, L1, R0, R1, Schedule[ulRound]);
        Round(R0, R1, L0, L1, Schedule[ulRound + 1]);
    }
    UNROLL_LANES
    for (size_t i = 0; i < COUNT; i++) { // the last round does not swap
        storeWord(pData + i * BLOCK, R0[i]);
        storeWord(pData + i * BLOCK + 4, R1[i]);
        storeWord(pData + i * BLOCK + 8, L0[i]);
        storeWord(pData + i * BLOCK + 12, L1[i]);
    }
}

void decrypt(unsigned char *pData, unsigned long ulLength, const SCHEDULE &Schedule) {
    for (; ulLength >= LANES * BLOCK; ulLength -= LANES * BLOCK, pData += LANES * BLOCK)
        decryptBlocks<LANES>(pData, Schedule);
    for (; ulLength >= BLOCK; ulLength -= BLOCK, pData += BLOCK)
        decryptBlocks<1>(pData, Schedule);
}

// The calling thread's last key and its schedule.
struct LAST_KEY {
    bool bMade;
    unsigned char Key[16];
    SCHEDULE Schedule;
};
thread_local LAST_KEY LastKey{};

} // namespace

void qxapi_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    SCHEDULE Schedule;
    makeSchedule(Schedule, pKey);
    decrypt(pData, ulLength, Schedule);
}

void qxapi_fast_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    LAST_KEY &Last = LastKey;
    if (!Last.bMade || memcmp(Last.Key, pKey, sizeof Last.Key) != 0) {
        memcpy(Last.Key, pKey, sizeof Last.Key);
        makeSchedule(Last.Schedule, pKey);
        Last.bMade = true;
    }
    decrypt(pData, ulLength, Last.Schedule);
}
