// What the data-area tests share: entries by key, writes and read-outs by
// register name, monitor marks, queued write requests and the change reports.
#ifndef KV3000_TEST_DATA_AREA_FIXTURE_H
#define KV3000_TEST_DATA_AREA_FIXTURE_H

#include "protocol.h"
#include "records.h"
#include "runtime_fixture.h"
#include "serviceForProtocol/data_area.h"

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

class DataAreaFixture : public RuntimeFixture {
protected:
    using Bytes = std::vector<unsigned char>;
    using Calls = std::vector<CallbackRecord>;

    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(driver.mutex);
            driver.writeList.clear();
        }
        RuntimeFixture::TearDown();
    }
    static int at(int station, const char* key, int address) {
        return getIndexOfDataArea(station, QString::fromLatin1(key), address, driver.dataArea);
    }
    static _DATA_& entry(int station, const char* key, int address) {
        return driver.dataArea[at(station, key, address)];
    }
    // Marks a unit as monitored as a whole, and the given bits of a word.
    static void monitor(int station, const char* key, int address, uint32_t bits = 0) {
        entry(station, key, address).monitorFlags = 1;
        entry(station, key, address).monitorBits = bits;
    }
    static void save(int station, const char* reg, int address, int len, Bytes bytes) {
        write_saveDataToArea(station, QString::fromLatin1(reg), address, len, bytes.data());
    }
    // Reads into a buffer of `size` bytes pre-set to 0xEE.
    static Bytes get(int station, const char* reg, int address, int len, size_t size) {
        Bytes out(size, 0xEE);
        EXPECT_EQ(intf_getData(station, QString::fromLatin1(reg), address, len, out.data()), 1);
        return out;
    }
    static void queueWrite(int station, const char* reg, int address, int length) {
        queueWrites({makeItem(reg, address, length, station)});
    }
    // "writeValid bitWriteFlags | readValue | writeValue", flags and bytes in hex.
    static std::string unit(int station, const char* key, int address) {
        const _DATA_& e = entry(station, key, address);
        char text[64];
        std::snprintf(text, sizeof text, "%d %x | %02x %02x %02x %02x | %02x %02x %02x %02x", e.writeValid,
                      e.bitWriteFlags, e.readValue[0], e.readValue[1], e.readValue[2], e.readValue[3],
                      e.writeValue[0], e.writeValue[1], e.writeValue[2], e.writeValue[3]);
        return text;
    }
    static CallbackRecord rec(int station, const char* name, int address) {
        return {1, station, QString::fromLatin1(name), address};
    }
    static Calls takeCalls() {
        Calls c = calls();
        calls().clear();
        return c;
    }
};

#endif
