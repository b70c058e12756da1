// The runtime's read-out of shown values; never talks to the device.
#include "kv3000_intf.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <mutex>

int intf_getData(int station, QString reg, int address, int len, unsigned char* data) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0 || !data) return 1;
    const QList<_DATA_>& area = driver.dataArea;
    switch (r.kind) {
        case UNIT_WORD:
            if (len > DATA_MAX_WORDS || !unitRangeFits(address, len)) break;
            for (int i = 0; i < len; ++i) {
                const unsigned char* shown = shownValue(area.at(dataAreaEntry(station, r, address + i)));
                data[2 * i] = shown[0];
                data[2 * i + 1] = shown[1];
            }
            break;
        case UNIT_DWORD: {
            // An odd len leaves the buffer's last word untouched.
            const int units = len / 2;
            if (len > DATA_MAX_WORDS || units == 0 || !unitRangeFits(address, units)) break;
            for (int i = 0; i < units; ++i) {
                const unsigned char* shown = shownValue(area.at(dataAreaEntry(station, r, address + i)));
                for (int b = 0; b < 4; ++b) data[4 * i + b] = shown[b];
            }
            break;
        }
        case UNIT_BIT:
            if (len > DATA_MAX_BITS || !unitRangeFits(address, len)) break;
            for (int i = 0; i < len; ++i)
                data[i] = shownValue(area.at(dataAreaEntry(station, r, address + i)))[0];
            break;
        case UNIT_BIT_IN_WORD: {
            if (len > DATA_MAX_BITS || address < 0 || !unitRangeFits(address, len)) break;
            int word = -1;
            int idx = -1;
            for (int i = 0; i < len; ++i) {
                const int b = address + i;
                if (b / 16 != word) {
                    word = b / 16;
                    idx = dataAreaEntry(station, r, word);
                }
                data[i] = (shownValue(area.at(idx))[(b % 16) / 8] >> (b % 8)) & 1;
            }
            break;
        }
        case UNIT_NONE:
            break;
    }
    return 1;
}
