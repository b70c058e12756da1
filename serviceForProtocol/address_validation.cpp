// The address checks the runtime runs before it binds an object to a device
// address. They read only the constant catalogue, so they take no lock.
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"
#include "kv3000_traits.h"
#include "kv_3000/address_codec.h"

#include <QLatin1String>

namespace {

// Conversion and range test shared by both checks; `unitBits` is the size of
// one requested element. The range test runs in double precision so that no
// length or address can wrap into range.
int checkRange(int row, const QString& reg, const QString& text, int& address, int length, int unitBits) {
    const QString format = QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_FORMAT]);
    if (a2i(text, address, format, reg) == -1) return KV_ADDR_MALFORMED;

    int maximum = 0;
    int minimum = 0;
    a2i(QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_MAX]), maximum, format, reg);
    a2i(QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_MIN]), minimum, format, reg);

    const double unitFactor = unitBits * 0.0625;
    if (address < minimum) return KV_ADDR_OUT_OF_RANGE;
    // The first element must exist whatever the length: a length of 0 or
    // below would otherwise pass an address beyond the register's end.
    if (address > maximum) return KV_ADDR_OUT_OF_RANGE;
    if (double(length) / unitFactor + double(address) > double(maximum) + 1.0) return KV_ADDR_OUT_OF_RANGE;
    address = addrOffset(reg, address);
    return KV_ADDR_OK;
}

}  // namespace

int intf_checkAddrValidity(const QString& reg, const QString& text, int& address, int length,
                           int wordAccess) {
    const int row = getIndexFromRegName(reg);
    if (row < 0) return KV_ADDR_UNKNOWN_REGISTER;
    const kvreg::Traits& t = kvreg::traits(row);
    if (t.countsBits() == (wordAccess != 0)) return KV_ADDR_WRONG_KIND;
    return checkRange(row, reg, text, address, length, wordAccess != 0 ? t.transferBits : 16);
}

int intf_checkAddr(const QString& reg, const QString& text, int& address, int dataType, int length,
                   int accessMode) {
    const int row = getIndexFromRegName(reg);
    if (row < 0) return KV_ADDR_UNKNOWN_REGISTER;
    const kvreg::Traits& t = kvreg::traits(row);
    if (t.countsBits() == (dataType != -1)) return KV_ADDR_WRONG_KIND;
    if (t.readOnly && (accessMode == 1 || accessMode == 2)) return KV_ADDR_READ_ONLY;
    // The runtime's codes 1, 3, 5, 6 and 9 are the types that fit a 32-bit unit.
    if (t.elementBits == 32 && dataType != 1 && dataType != 3 && dataType != 5 && dataType != 6 &&
        dataType != 9)
        return KV_ADDR_BAD_DATA_TYPE;
    return checkRange(row, reg, text, address, length, dataType != -1 ? t.transferBits : 16);
}
