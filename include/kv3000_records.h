// The five plain records that pass between the driver's parts and, for
// FRAME_PRO, KEY_ADDRESS and _RCP_VAR_PRO, across the boundary with the HMI
// runtime. Field order and widths of those three are shared with the
// runtime's build and must not change.
#ifndef KV3000_RECORDS_H
#define KV3000_RECORDS_H

#include <QString>

#include <cstddef>
#include <cstdint>

// Size of every value/frame buffer in the records.
enum { KV_BUFFER_SIZE = 1024 };

// One register block to read or write.
struct VARIABLE {
    int32_t id = 0;                           // request id; 4 for cyclic read blocks
    int32_t station = 0;                      // station (device) number
    QString reg;                              // register name as in REG_LIST
    int32_t address = 0;                      // integer address (word.bit registers: word * 16 + bit)
    int32_t length = 0;                       // elements: bits, words or 32-bit values
    unsigned char data[KV_BUFFER_SIZE] = {};  // values, least significant byte first
};

// One request frame handed to the runtime, with what is needed to check and
// parse its reply, and a copy of the block it serves.
struct FRAME_PRO {
    unsigned char frame[KV_BUFFER_SIZE] = {};  // request bytes
    int32_t sendLength = 0;                    // bytes of frame to send
    int32_t replyLength = 0;                   // expected reply size; 0 = no reply
    int32_t dataOffset = 0;    // reads: first value byte in the reply; word writes: first data byte in frame
    int32_t elementCount = 0;  // reads: elements carried by the reply; 0 otherwise
    int32_t reserved = 0;
    int32_t id = 0;
    int32_t station = 0;
    QString reg;
    int32_t address = 0;
    int32_t length = 0;
    unsigned char data[KV_BUFFER_SIZE] = {};
};

// One address key, as handed over by the runtime and as merging produces it.
struct KEY_ADDRESS {
    QString userText1;         // carried along, not interpreted
    int32_t userValue = 0;     // carried along, not interpreted
    int32_t recipeOffset = 0;  // recipe keys: first value's position in the recipe buffer (words)
    int32_t station = 0;
    QString reg;
    QString userText2;  // carried along, not interpreted
    int32_t address = 0;
    int32_t dataType = 0;  // runtime's data type code; -1 = bit values (one byte each)
    int32_t length = 0;
    unsigned char values[KV_BUFFER_SIZE] = {};
};

// One recipe entry, and also one recipe block.
struct _RCP_VAR_PRO {
    int32_t protocolId = 0;
    int32_t station = 0;
    QString reg;
    int32_t address = 0;
    int32_t length = 0;        // entries: runtime units; blocks: transfer units
    int32_t bufferOffset = 0;  // first value's position in the recipe buffer, in 16-bit words
    unsigned char spare[4] = {};
};

// One data-area entry: one storage unit (word, double word or bit) of one
// register of one station.
struct _DATA_ {
    uint8_t writeValid = 0;      // 1 while writeValue is to be shown instead of readValue
    uint32_t bitWriteFlags = 0;  // bit-in-word units: 2p = write of bit p pending, 2p+1 = second one
    uint32_t monitorFlags = 0;   // bit 0 = unit monitored as a whole
    uint32_t monitorBits = 0;    // bit p = bit p of this word monitored by itself
    int32_t station = 0;
    QString regKey;  // register name up to the first "_"
    int32_t address = 0;
    unsigned char readValue[4] = {};   // little-endian
    unsigned char writeValue[4] = {};  // little-endian
};

// The driver's records move in memory like their bytes (QString does), so
// the vectors that hold them grow by reallocation.
Q_DECLARE_TYPEINFO(_DATA_, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(FRAME_PRO, Q_MOVABLE_TYPE);

// What the runtime's build relies on: declaration order and buffer sizes.
static_assert(sizeof(int32_t) == 4, "32-bit fields");
static_assert(offsetof(FRAME_PRO, frame) == 0, "FRAME_PRO starts with the frame bytes");
static_assert(offsetof(FRAME_PRO, sendLength) == KV_BUFFER_SIZE, "frame is 1024 bytes");
static_assert(offsetof(FRAME_PRO, replyLength) == offsetof(FRAME_PRO, sendLength) + 4, "order");
static_assert(offsetof(FRAME_PRO, dataOffset) == offsetof(FRAME_PRO, replyLength) + 4, "order");
static_assert(offsetof(FRAME_PRO, elementCount) == offsetof(FRAME_PRO, dataOffset) + 4, "order");
static_assert(offsetof(FRAME_PRO, reserved) == offsetof(FRAME_PRO, elementCount) + 4, "order");
static_assert(offsetof(FRAME_PRO, id) == offsetof(FRAME_PRO, reserved) + 4, "order");
static_assert(offsetof(FRAME_PRO, station) == offsetof(FRAME_PRO, id) + 4, "order");
static_assert(offsetof(FRAME_PRO, reg) > offsetof(FRAME_PRO, station), "order");
static_assert(offsetof(FRAME_PRO, address) > offsetof(FRAME_PRO, reg), "order");
static_assert(offsetof(FRAME_PRO, length) == offsetof(FRAME_PRO, address) + 4, "order");
static_assert(offsetof(FRAME_PRO, data) == offsetof(FRAME_PRO, length) + 4, "order");
static_assert(sizeof(FRAME_PRO::data) == KV_BUFFER_SIZE, "block data is 1024 bytes");

static_assert(offsetof(KEY_ADDRESS, userText1) == 0, "order");
static_assert(offsetof(KEY_ADDRESS, userValue) > offsetof(KEY_ADDRESS, userText1), "order");
static_assert(offsetof(KEY_ADDRESS, recipeOffset) == offsetof(KEY_ADDRESS, userValue) + 4, "order");
static_assert(offsetof(KEY_ADDRESS, station) == offsetof(KEY_ADDRESS, recipeOffset) + 4, "order");
static_assert(offsetof(KEY_ADDRESS, reg) > offsetof(KEY_ADDRESS, station), "order");
static_assert(offsetof(KEY_ADDRESS, userText2) == offsetof(KEY_ADDRESS, reg) + sizeof(QString), "order");
static_assert(offsetof(KEY_ADDRESS, address) == offsetof(KEY_ADDRESS, userText2) + sizeof(QString), "order");
static_assert(offsetof(KEY_ADDRESS, dataType) == offsetof(KEY_ADDRESS, address) + 4, "order");
static_assert(offsetof(KEY_ADDRESS, length) == offsetof(KEY_ADDRESS, dataType) + 4, "order");
static_assert(offsetof(KEY_ADDRESS, values) == offsetof(KEY_ADDRESS, length) + 4, "order");
static_assert(sizeof(KEY_ADDRESS::values) == KV_BUFFER_SIZE, "values are 1024 bytes");

static_assert(offsetof(_RCP_VAR_PRO, protocolId) == 0, "order");
static_assert(offsetof(_RCP_VAR_PRO, station) == 4, "order");
static_assert(offsetof(_RCP_VAR_PRO, reg) >= 8, "order");
static_assert(offsetof(_RCP_VAR_PRO, address) == offsetof(_RCP_VAR_PRO, reg) + sizeof(QString), "order");
static_assert(offsetof(_RCP_VAR_PRO, length) == offsetof(_RCP_VAR_PRO, address) + 4, "order");
static_assert(offsetof(_RCP_VAR_PRO, bufferOffset) == offsetof(_RCP_VAR_PRO, length) + 4, "order");
static_assert(offsetof(_RCP_VAR_PRO, spare) == offsetof(_RCP_VAR_PRO, bufferOffset) + 4, "order");
static_assert(sizeof(_RCP_VAR_PRO::spare) == 4, "spare is 4 bytes");

static_assert(sizeof(VARIABLE::data) == KV_BUFFER_SIZE, "VARIABLE data is 1024 bytes");
static_assert(sizeof(_DATA_::readValue) == 4 && sizeof(_DATA_::writeValue) == 4, "unit values");

#endif
