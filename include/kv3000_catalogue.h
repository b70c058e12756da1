// The KV-3000 register catalogue and the driver's identity strings. The row
// order is significant: the index is stored and compared elsewhere (area
// codes, address weights, the driver's register-name list).
#ifndef KV3000_CATALOGUE_H
#define KV3000_CATALOGUE_H

#include <QString>

#define PROCOTOL_NAME "kv_3000"
#define PROCOTOL_VERSION "2.0.0.0"
#define PROCOTOL_DEFALT_COM_PAR "9600,8,EVEN,1"
#define PROCOTOL_DEFALT_IP_PAR "192.168.1.100,8000"
#define PROCOTOL_PAR_HMI_SET_MODE "0_0"

enum { REG_COUNT = 28 };

// Columns of ADDRESS_RANGE_PRO.
enum {
    REG_COL_FORMAT = 0,    // address format: D, H (O known) and "." for word.bit
    REG_COL_MIN = 1,       // lowest address, in the row's format
    REG_COL_MAX = 2,       // highest address, in the row's format
    REG_COL_ELEMENT = 3,   // element size in bits: "1", "16", "32"
    REG_COL_ACCESS = 4,    // "RW" or "R"
    REG_COL_TRANSFER = 5,  // transfer unit in bits: "1", "16", "32"
};

inline constexpr const char* REG_LIST[REG_COUNT] = {
    "MR_bit", "LR_bit", "CR_bit", "R",  "B",  "T",  "C",  "DM_bit", "TM_bit", "CM_bit",
    "EM_bit", "FM_bit", "DM",     "TM", "CM", "EM", "FM", "MR",     "LR",     "CR",
    "W",      "ZF",     "TC",     "TS", "CC", "CS", "Z",  "TRM",
};

inline constexpr const char* ADDRESS_RANGE_PRO[REG_COUNT][6] = {
    {"DDD.DD", "0.0", "999.15", "1", "RW", "16"},      // MR_bit
    {"DDD.DD", "0.0", "999.15", "1", "RW", "16"},      // LR_bit
    {"DDD.DD", "0.0", "999.15", "1", "RW", "16"},      // CR_bit
    {"DDD.DD", "0.0", "999.15", "1", "RW", "1"},       // R
    {"HHHH", "0", "3FFF", "1", "RW", "1"},             // B
    {"DDDD", "0", "9999", "1", "R", "1"},              // T
    {"DDDD", "0", "9999", "1", "R", "1"},              // C
    {"DDDDD.DD", "0.0", "65535.15", "1", "RW", "16"},  // DM_bit
    {"DDDDD.DD", "0.0", "9999.15", "1", "RW", "16"},   // TM_bit
    {"DDDDD.DD", "0.0", "65535.15", "1", "RW", "16"},  // CM_bit
    {"DDDDD.DD", "0.0", "65535.15", "1", "RW", "16"},  // EM_bit
    {"DDDDD.DD", "0.0", "65535.15", "1", "RW", "16"},  // FM_bit
    {"DDDDD", "0", "65535", "16", "RW", "16"},         // DM
    {"DDDD", "0", "9999", "16", "RW", "16"},           // TM
    {"DDDDD", "0", "65535", "16", "RW", "16"},         // CM
    {"DDDDD", "0", "65535", "16", "RW", "16"},         // EM
    {"DDDDD", "0", "65535", "16", "RW", "16"},         // FM
    {"DDD", "0", "999", "16", "RW", "16"},             // MR
    {"DDD", "0", "999", "16", "RW", "16"},             // LR
    {"DDD", "0", "999", "16", "RW", "16"},             // CR
    {"HHH", "0", "3FF", "16", "RW", "16"},             // W
    {"DDDDD", "0", "131071", "16", "RW", "16"},        // ZF
    {"DDDD", "0", "9999", "32", "RW", "32"},           // TC
    {"DDDD", "0", "9999", "32", "RW", "32"},           // TS
    {"DDDD", "0", "9999", "32", "RW", "32"},           // CC
    {"DDDD", "0", "9999", "32", "RW", "32"},           // CS
    {"DD", "0", "15", "32", "RW", "32"},               // Z
    {"D", "0", "7", "32", "RW", "32"},                 // TRM
};

// Area codes placed in request frames: reads, bit writes and word writes.
inline constexpr int REG_LIST_AREA[REG_COUNT] = {
    17, 18, 1, 0, 27, 2, 3, 6, 8, 7, 23, 25, 6, 8, 7, 23, 25, 17, 18, 1, 28, 44, 2, 2, 3, 3, 48, 38,
};

// Area codes of timer/counter value writes; equal to REG_LIST_AREA except TC, TS, CC, CS.
inline constexpr int REG_LIST_W_AREA[REG_COUNT] = {
    17, 18, 1, 0, 27, 2, 3, 6, 8, 7, 23, 25, 6, 8, 7, 23, 25, 17, 18, 1, 28, 44, 32, 33, 34, 35, 48, 38,
};

// Index 0..27 of the row whose name equals name exactly; -1 when none does.
int getIndexFromRegName(const QString& name);

// Column 3 / column 5 of a row as integers (0 for an index outside the table).
int regElementBits(int index);
int regTransferBits(int index);

#endif
