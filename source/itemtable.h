// itemtable.h - a packet as a table: one row for each item, with its tag and the member that it carries.
//
// The two request modules and the two sending engines keep such tables. The type of the member decides how
// its item is built and read. A row does not compile if no item can carry the type of its member.
#ifndef PCCAST_ITEMTABLE_H
#define PCCAST_ITEMTABLE_H

#include "ktpacket.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <variant>

// A block that the record owns, and its length in bytes.
template <typename Record>
struct ItemBlock {
    unsigned char *Record::*pData;
    int Record::*piLength;
};

template <typename Record>
struct ItemRow {
    unsigned short usTag;
    // A number, a NUL-terminated text that the record owns, or a block that it owns.
    std::variant<unsigned long Record::*, unsigned int Record::*, int Record::*, unsigned short Record::*,
                 char * Record::*, ItemBlock<Record>>
        member;
    // The size of a number on the wire. 0 means 2 for an unsigned short and 4 for the other types. Of a wider
    // member only the low-order bytes are sent.
    unsigned long ulBytes = 0;
    // The number that an item of length 0 stands for.
    unsigned long ulWhenEmpty = 0;
};

// The size in bytes of a number on the wire. ulBytes: of its row.
template <typename Number>
unsigned long itemNumberSize(unsigned long ulBytes) {
    return ulBytes != 0 ? ulBytes : std::is_same_v<Number, unsigned short> ? 2 : 4;
}

// Appends the item of the row's member. Leaves out a missing text or block. Returns false if memory runs out.
template <typename Record>
bool itemAppend(KTPacket *pPacket, const ItemRow<Record> &row, const Record &record) {
    const auto append = [&](unsigned long ulLength, const void *pValue) {
        return KTPacketInsertItem(pPacket, 1, row.usTag, ulLength, pValue) >= 0;
    };
    return std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), ItemBlock<Record>>) {
                const int iLength = record.*member.piLength;
                return append(iLength < 0 ? 0 : static_cast<unsigned long>(iLength), record.*member.pData);
            } else if constexpr (std::is_same_v<decltype(member), char * Record::*>) {
                const char *pText = record.*member;
                return append(pText == nullptr ? 0 : std::strlen(pText), pText);
            } else {
                const auto &number = record.*member;
                return append(itemNumberSize<std::decay_t<decltype(number)>>(row.ulBytes), &number);
            }
        },
        row.member);
}

// Returns a NUL-terminated copy of the item's value. The caller owns it. Null for an item of length 0, and if
// memory runs out.
template <typename Byte>
Byte *itemCopyValue(const KTPacketItem &item) {
    if (item.ulLength == 0) {
        return nullptr;
    }
    auto *pCopy = static_cast<Byte *>(std::malloc(item.ulLength + 1));
    if (pCopy != nullptr) {
        std::memcpy(pCopy, item.pValue, item.ulLength);
        pCopy[item.ulLength] = 0;
    }
    return pCopy;
}

// Reads the item's number, of at most ulBytes bytes. The missing bytes of a shorter value are 0.
inline unsigned int itemNumber(const KTPacketItem &item, unsigned long ulBytes) {
    unsigned char value[4] = {};
    std::memcpy(value, item.pValue, item.ulLength < ulBytes ? item.ulLength : ulBytes);
    return ktpacketGetDWORD(value);
}

// Stores the item's value in the row's member. Releases the text or block that the member held before.
template <typename Record>
void itemStore(const ItemRow<Record> &row, const KTPacketItem &item, Record *pRecord) {
    std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), ItemBlock<Record>>) {
                std::free(pRecord->*member.pData);
                pRecord->*member.pData = itemCopyValue<unsigned char>(item);
                pRecord->*member.piLength =
                    pRecord->*member.pData != nullptr ? static_cast<int>(item.ulLength) : 0;
            } else if constexpr (std::is_same_v<decltype(member), char * Record::*>) {
                std::free(pRecord->*member);
                pRecord->*member = itemCopyValue<char>(item);
            } else {
                using Number = std::decay_t<decltype(pRecord->*member)>;
                const unsigned long ulNumber = item.ulLength == 0
                                                   ? row.ulWhenEmpty
                                                   : itemNumber(item, itemNumberSize<Number>(row.ulBytes));
                pRecord->*member = static_cast<Number>(ulNumber);
            }
        },
        row.member);
}

// Appends the items of all rows, in their order. Returns false if memory runs out.
template <typename Record, typename Rows>
bool itemAppendAll(KTPacket *pPacket, const Rows &rows, const Record &record) {
    for (const ItemRow<Record> &row : rows) {
        if (!itemAppend(pPacket, row, record)) {
            return false;
        }
    }
    return true;
}

// Stores the item's value in the member of its tag. Ignores a tag that no row has.
template <typename Record, typename Rows>
void itemStoreByTag(const Rows &rows, const KTPacketItem &item, Record *pRecord) {
    for (const ItemRow<Record> &row : rows) {
        if (row.usTag == item.usTag) {
            itemStore(row, item, pRecord);
        }
    }
}

#endif
