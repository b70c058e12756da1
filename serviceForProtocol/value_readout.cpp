// The runtime's read-out of shown values; never talks to the device.
#include "kv3000_intf.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <cstring>
#include <mutex>

int intf_getData(int station, QString reg, int address, int len, unsigned char* data) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0 || !data) return 1;
    // Bytes of one unit in the buffer: one per bit, low byte first for words and 32-bit values.
    const int bytes = r.kind == Unit::Word ? 2 : r.kind == Unit::DWord ? 4 : 1;
    // An odd len of a 32-bit register leaves the buffer's last word untouched.
    walkUnits(station, r, address, bufferUnits(r.kind, len), [&](const UnitStep& u) {
        const unsigned char* shown = shownValue(driver.dataArea.at(u.entry));
        if (r.kind == Unit::BitInWord)
            data[u.i] = (shown[u.byte] >> u.bit) & 1;
        else
            std::memcpy(data + bytes * u.i, shown, static_cast<size_t>(bytes));
        return true;
    });
    return 1;
}
