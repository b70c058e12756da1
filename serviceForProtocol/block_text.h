// How the driver names a block in its messages: "1#DM100(5)", "2#DM_bit100.5(1)".
#ifndef KV3000_BLOCK_TEXT_H
#define KV3000_BLOCK_TEXT_H

#include <QString>

// "%1#%2(%3)": station, the address text (register and word.bit for the
// registers written so, else register and decimal address) and length.
QString blockText(int station, const QString& reg, int address, int length);

#endif
