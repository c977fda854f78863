// crc32.cpp - CRC-32 of IEEE 802.3, eight bytes a step. Safe on any thread; the tables are constants.
#include <qxapi.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320;
constexpr std::size_t kStepSize = 8;

// table[k][b]: what byte b contributes to the register if k more bytes follow it in the step.
using Tables = std::array<std::array<std::uint32_t, 256>, kStepSize>;

constexpr Tables makeTables() {
    Tables table{};
    for (std::uint32_t uiByte = 0; uiByte < 256; uiByte++) {
        std::uint32_t uiRegister = uiByte;
        for (int iBit = 0; iBit < 8; iBit++) {
            uiRegister = (uiRegister >> 1) ^ ((uiRegister & 1) != 0 ? kPolynomial : 0);
        }
        table[0][uiByte] = uiRegister;
    }
    for (std::size_t ulByte = 0; ulByte < 256; ulByte++) {
        for (std::size_t ulAfter = 1; ulAfter < kStepSize; ulAfter++) {
            const std::uint32_t uiBefore = table[ulAfter - 1][ulByte];
            table[ulAfter][ulByte] = (uiBefore >> 8) ^ table[0][uiBefore & 0xFF];
        }
    }
    return table;
}

constexpr Tables kTable = makeTables();

} // namespace

unsigned int qxapi_crc32(unsigned int uiInitial, const void *pData, unsigned long ulLength) {
    std::uint32_t uiRegister = uiInitial;
    auto *pByte = static_cast<const unsigned char *>(pData);
    for (; ulLength >= kStepSize; ulLength -= kStepSize, pByte += kStepSize) {
        std::uint32_t uiNext = 0;
        for (std::size_t ulAt = 0; ulAt < kStepSize; ulAt++) {
            const std::uint32_t uiOver = ulAt < 4 ? uiRegister >> (8 * ulAt) : 0;
            uiNext ^= kTable[kStepSize - 1 - ulAt][(pByte[ulAt] ^ uiOver) & 0xFF];
        }
        uiRegister = uiNext;
    }
    for (; ulLength > 0; ulLength--) {
        uiRegister = (uiRegister >> 8) ^ kTable[0][(uiRegister ^ *pByte++) & 0xFF];
    }
    return ~uiRegister;
}
