// itemtable.h - a message as a table: one row for each item, with its tag and the member that it carries.
//
// The type of the member decides how the item is built and how it is read. A row that pairs a tag with a
// member that no item can carry does not compile.
#ifndef PCCAST_ITEMTABLE_H
#define PCCAST_ITEMTABLE_H

#include "ktpacket.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <variant>

// An owned block and its length in bytes.
template <typename Record>
struct ItemBlock {
    unsigned char *Record::*pData;
    int Record::*piLength;
};

template <typename Record>
struct ItemRow {
    unsigned short usTag;
    // Numbers, an owned NUL-terminated text, an owned block.
    std::variant<unsigned long Record::*, unsigned int Record::*, int Record::*, unsigned short Record::*,
                 char * Record::*, ItemBlock<Record>>
        member;
    // Of a number on the wire; 0: 2 for an unsigned short, 4 for the others. A wider member is cut to its
    // low-order bytes.
    unsigned long ulBytes = 0;
    unsigned long ulWhenEmpty = 0; // the number that an item of length 0 stands for
};

template <typename Number>
unsigned long itemNumberSize(unsigned long ulBytes) {
    return ulBytes != 0 ? ulBytes : std::is_same_v<Number, unsigned short> ? 2 : 4;
}

// Appends the item of the row's member. A text or block that is missing is left out. Returns false when
// memory runs out.
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

// An owned, NUL-terminated copy of the item's value; null for an item of length 0, and when memory runs out.
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

// The item's number. A value shorter than ulBytes is filled up with zeros.
inline unsigned int itemNumber(const KTPacketItem &item, unsigned long ulBytes) {
    unsigned char value[4] = {};
    std::memcpy(value, item.pValue, item.ulLength < ulBytes ? item.ulLength : ulBytes);
    return ktpacketGetDWORD(value);
}

// Stores the item's value in the row's member. What an owned member held before is released.
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

// Appends the items of all rows, in their order. Returns false when memory runs out.
template <typename Record, typename Rows>
bool itemAppendAll(KTPacket *pPacket, const Rows &rows, const Record &record) {
    for (const ItemRow<Record> &row : rows) {
        if (!itemAppend(pPacket, row, record)) {
            return false;
        }
    }
    return true;
}

// Stores the item in the member of its tag, if a row has it.
template <typename Record, typename Rows>
void itemStoreByTag(const Rows &rows, const KTPacketItem &item, Record *pRecord) {
    for (const ItemRow<Record> &row : rows) {
        if (row.usTag == item.usTag) {
            itemStore(row, item, pRecord);
        }
    }
}

#endif
