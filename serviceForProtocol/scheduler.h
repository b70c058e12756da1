#ifndef KV3000_SCHEDULER_H
#define KV3000_SCHEDULER_H

// Ends a recipe transfer (state 5 write, 6 read): the block index goes back
// to 0 and the runtime's request byte is cleared under its mutex.
void endRecipeRequest(int state);
// Tells the runtime that its last condition read has finished.
void reportConditionReadEnd(bool failed);

#endif
