// crc32.cpp - CRC-32 of IEEE 802.3, eight bytes a step.
#include <qxapi.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

constexpr uint32_t POLYNOMIAL = 0xEDB88320;
constexpr size_t STEP = 8;

// Table[k][b]: what byte b does to the register when k more bytes follow it in the step.
using TABLES = std::array<std::array<uint32_t, 256>, STEP>;

constexpr TABLES makeTables() {
    TABLES Table{};
    for (uint32_t uiByte = 0; uiByte < 256; uiByte++) {
        uint32_t uiRegister = uiByte;
        for (int iBit = 0; iBit < 8; iBit++)
            uiRegister = (uiRegister >> 1) ^ ((uiRegister & 1) != 0 ? POLYNOMIAL : 0);
        Table[0][uiByte] = uiRegister;
    }
    for (size_t ulByte = 0; ulByte < 256; ulByte++) {
        for (size_t ulAfter = 1; ulAfter < STEP; ulAfter++) {
            const uint32_t uiBefore = Table[ulAfter - 1][ulByte];
            Table[ulAfter][ulByte] = (uiBefore >> 8) ^ Table[0][uiBefore & 0xFF];
        }
    }
    return Table;
}

constexpr TABLES Table = makeTables();

} // namespace

unsigned int qxapi_crc32(unsigned int uiInitial, const void *pData, unsigned long ulLength) {
    uint32_t uiRegister = uiInitial;
    auto *pByte = static_cast<const unsigned char *>(pData);
    for (; ulLength >= STEP; ulLength -= STEP, pByte += STEP) {
        uint32_t uiNext = 0;
        for (size_t ulAt = 0; ulAt < STEP; ulAt++) {
            const uint32_t uiOver = ulAt < 4 ? uiRegister >> (8 * ulAt) : 0;
            uiNext ^= Table[STEP - 1 - ulAt][(pByte[ulAt] ^ uiOver) & 0xFF];
        }
        uiRegister = uiNext;
    }
    for (; ulLength > 0; ulLength--)
        uiRegister = (uiRegister >> 8) ^ Table[0][(uiRegister ^ *pByte++) & 0xFF];
    return ~uiRegister;
}
