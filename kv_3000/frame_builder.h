// Builders of the KV-3000 request frames. Each appends FRAME_PRO records to
// driver.frameList and touches nothing else.
#ifndef KV3000_FRAME_BUILDER_H
#define KV3000_FRAME_BUILDER_H

#include "kv3000_records.h"

#include <QList>

// Check sum of count bytes: the byte sum, negated (two's complement) when above 255.
unsigned short computate_check(unsigned char* bytes, unsigned short count);

// The "_bit" rule: a block of bits inside words becomes the block of whole
// words that covers them ("DM_bit" 1603 x 1 gives "DM" 100 x 1). Other blocks
// are returned as they are.
VARIABLE workingBlock(const VARIABLE& var);

// Appends the five handshake frames.
void handShakeFrame();
// Appends the read frame of the first block of list; 1, or 0 when nothing could be framed.
int getReadFrame(QList<VARIABLE> list);
// The read frame of one block; 1, or 0 when nothing could be framed.
int appendReadFrame(const VARIABLE& var);
// Appends the frame or frames that write var (nothing for "T", "C" or an unknown register).
void getWriteFrame(VARIABLE& var);

#endif
