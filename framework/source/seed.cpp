// seed.cpp - SEED (RFC 4269): decrypts whole blocks in place.
//
// Called by relays for every datagram, on their own threads. Keeps each thread's last key schedule. The
// compiler computes the tables from the cipher's definition.
#include <qxapi.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::size_t kBlock = 16;
constexpr std::size_t kRounds = 16;
// Number of blocks decrypted at once. Within a block each look-up waits for the one before; the look-ups of
// other blocks fill that time. For this the loops over the blocks must be unrolled, and at -O2 a compiler
// unrolls them only if told to.
constexpr std::size_t kLanes = 4;
#define UNROLL_LANES _Pragma("GCC unroll 4")

// ---- Tables

constexpr std::uint32_t multiplyField(std::uint32_t uiLeft, std::uint32_t uiRight) {
    std::uint32_t uiProduct = 0;
    for (; uiRight != 0; uiRight >>= 1) {
        if ((uiRight & 1) != 0) {
            uiProduct ^= uiLeft;
        }
        uiLeft <<= 1;
        if ((uiLeft & 0x100) != 0) {
            uiLeft ^= 0x163; // x^8 + x^6 + x^5 + x + 1
        }
    }
    return uiProduct;
}

constexpr std::uint32_t powerField(std::uint32_t uiBase, unsigned int uiExponent) {
    std::uint32_t uiPower = 1;
    for (; uiExponent != 0; uiExponent >>= 1) {
        if ((uiExponent & 1) != 0) {
            uiPower = multiplyField(uiPower, uiBase);
        }
        uiBase = multiplyField(uiBase, uiBase);
    }
    return uiPower;
}

// An S-box: matrix * x^exponent + constant, over bits. Each row of the matrix begins with the most
// significant bit.
struct SBox {
    std::array<std::uint32_t, 8> matrix;
    unsigned int uiExponent;
    std::uint32_t uiConstant;
};
constexpr SBox kSBoxes[2] = {
    {{0b10001010, 0b11111110, 0b10000101, 0b01000010, 0b01000101, 0b00100001, 0b10001000, 0b00010100},
     247,
     169},
    {{0b01000101, 0b10000101, 0b11111110, 0b00100001, 0b10001010, 0b10001000, 0b01000010, 0b00010100},
     251,
     56}};

constexpr std::uint32_t substitute(const SBox &box, std::uint32_t uiByte) {
    const std::uint32_t uiPower = powerField(uiByte, box.uiExponent);
    std::uint32_t uiResult = 0;
    for (const std::uint32_t uiRow : box.matrix) {
        std::uint32_t uiBits = uiRow & uiPower;
        uiBits ^= uiBits >> 4;
        uiBits ^= uiBits >> 2;
        uiBits ^= uiBits >> 1;
        uiResult = (uiResult << 1) | (uiBits & 1);
    }
    return uiResult ^ box.uiConstant;
}

// merged[j][x]: what byte j of G's argument contributes to the result if it is x.
using MergedTables = std::array<std::array<std::uint32_t, 256>, 4>;

constexpr MergedTables makeMerged() {
    constexpr std::uint32_t kMask[4] = {0xFC, 0xF3, 0xCF, 0x3F};
    MergedTables merged{};
    for (std::size_t ulPosition = 0; ulPosition < 4; ulPosition++) {
        for (std::uint32_t uiByte = 0; uiByte < 256; uiByte++) {
            const std::uint32_t uiSubstituted = substitute(kSBoxes[ulPosition % 2], uiByte);
            for (std::size_t ulTo = 0; ulTo < 4; ulTo++) {
                merged[ulPosition][uiByte] |= (uiSubstituted & kMask[(ulTo + ulPosition) % 4]) << (8 * ulTo);
            }
        }
    }
    return merged;
}

constexpr MergedTables kMergedG = makeMerged();

inline std::uint32_t G(std::uint32_t uiWord) {
    return kMergedG[0][uiWord & 0xFF] ^ kMergedG[1][(uiWord >> 8) & 0xFF] ^
           kMergedG[2][(uiWord >> 16) & 0xFF] ^ kMergedG[3][uiWord >> 24];
}

// ---- Key schedule

struct RoundKey {
    std::uint32_t uiLeft;
    std::uint32_t uiRight;
};
using Schedule = std::array<RoundKey, kRounds>; // in the order of decryption

inline std::uint32_t loadWord(const unsigned char *pByte) {
    return (std::uint32_t{pByte[0]} << 24) | (std::uint32_t{pByte[1]} << 16) |
           (std::uint32_t{pByte[2]} << 8) | pByte[3];
}

inline void storeWord(unsigned char *pByte, std::uint32_t uiWord) {
    pByte[0] = static_cast<unsigned char>(uiWord >> 24);
    pByte[1] = static_cast<unsigned char>(uiWord >> 16);
    pByte[2] = static_cast<unsigned char>(uiWord >> 8);
    pByte[3] = static_cast<unsigned char>(uiWord);
}

void makeSchedule(Schedule &schedule, const unsigned char *pKey) {
    std::uint64_t ulLeft = (std::uint64_t{loadWord(pKey)} << 32) | loadWord(pKey + 4);
    std::uint64_t ulRight = (std::uint64_t{loadWord(pKey + 8)} << 32) | loadWord(pKey + 12);
    std::uint32_t uiConstant = 0x9E3779B9;
    for (std::size_t ulRound = 0; ulRound < kRounds; ulRound++) {
        const auto uiLeftHigh = static_cast<std::uint32_t>(ulLeft >> 32),
                   uiLeftLow = static_cast<std::uint32_t>(ulLeft);
        const auto uiRightHigh = static_cast<std::uint32_t>(ulRight >> 32),
                   uiRightLow = static_cast<std::uint32_t>(ulRight);
        schedule[kRounds - 1 - ulRound] = {G(uiLeftHigh + uiRightHigh - uiConstant),
                                           G(uiLeftLow - uiRightLow + uiConstant)};
        if (ulRound % 2 == 0) {
            ulLeft = (ulLeft >> 8) | (ulLeft << 56);
        } else {
            ulRight = (ulRight << 8) | (ulRight >> 56);
        }
        uiConstant = (uiConstant << 1) | (uiConstant >> 31);
    }
}

// ---- Blocks

// Decrypts kCount neighbouring blocks.
template <std::size_t kCount>
inline void decryptBlocks(unsigned char *pData, const Schedule &schedule) {
    std::uint32_t l0[kCount], l1[kCount], r0[kCount], r1[kCount];
    UNROLL_LANES
    for (std::size_t i = 0; i < kCount; i++) {
        l0[i] = loadWord(pData + i * kBlock);
        l1[i] = loadWord(pData + i * kBlock + 4);
        r0[i] = loadWord(pData + i * kBlock + 8);
        r1[i] = loadWord(pData + i * kBlock + 12);
    }
    // One round: half ^= F(other). The two halves swap roles from round to round.
    const auto round = [](std::uint32_t(&half0)[kCount], std::uint32_t(&half1)[kCount],
                          const std::uint32_t(&other0)[kCount], const std::uint32_t(&other1)[kCount],
                          const RoundKey &key) {
        UNROLL_LANES
        for (std::size_t i = 0; i < kCount; i++) {
            std::uint32_t t0 = other0[i] ^ key.uiLeft;
            std::uint32_t t1 = G(other1[i] ^ key.uiRight ^ t0);
            t0 = G(t0 + t1);
            t1 = G(t1 + t0);
            half0[i] ^= t0 + t1;
            half1[i] ^= t1;
        }
    };
    for (std::size_t ulRound = 0; ulRound < kRounds; ulRound += 2) {
        round(l0, l1, r0, r1, schedule[ulRound]);
        round(r0, r1, l0, l1, schedule[ulRound + 1]);
    }
    UNROLL_LANES
    for (std::size_t i = 0; i < kCount; i++) { // the last round does not swap
        storeWord(pData + i * kBlock, r0[i]);
        storeWord(pData + i * kBlock + 4, r1[i]);
        storeWord(pData + i * kBlock + 8, l0[i]);
        storeWord(pData + i * kBlock + 12, l1[i]);
    }
}

void decrypt(unsigned char *pData, unsigned long ulLength, const Schedule &schedule) {
    for (; ulLength >= kLanes * kBlock; ulLength -= kLanes * kBlock, pData += kLanes * kBlock) {
        decryptBlocks<kLanes>(pData, schedule);
    }
    for (; ulLength >= kBlock; ulLength -= kBlock, pData += kBlock) {
        decryptBlocks<1>(pData, schedule);
    }
}

// The calling thread's last key and its schedule.
struct LastKey {
    bool bMade;
    unsigned char key[16];
    Schedule schedule;
};
thread_local LastKey lastKey{};

} // namespace

void qxapi_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    Schedule schedule;
    makeSchedule(schedule, pKey);
    decrypt(pData, ulLength, schedule);
}

void qxapi_fast_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    LastKey &last = lastKey;
    if (!last.bMade || std::memcmp(last.key, pKey, sizeof last.key) != 0) {
        std::memcpy(last.key, pKey, sizeof last.key);
        makeSchedule(last.schedule, pKey);
        last.bMade = true;
    }
    decrypt(pData, ulLength, last.schedule);
}
