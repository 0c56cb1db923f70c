/**
 * @file
 * Events that wait together, taken in together. Each has its pass of the loop, as if it had come
 * alone; only its copy is held back, and its record too when nobody needs that before: in a log
 * that has gone round, while there is no archiver. Then all records go out in one write, the lines
 * behind them, and all copies in one send.
 *
 * A write that fails or is short takes all of that back, and the same messages are taken one at a
 * time: so what stops at the bad place is the event that would have stopped there alone.
 */
#ifndef EMP_SERVE_BATCH_H
#define EMP_SERVE_BATCH_H

/**
 * Takes in the events that wait, if they are worth a batch.
 * @return whether they were. A batch whose records cannot be written does not return: from there on
 * the loop goes on here, without batches.
 */
bool empServeBatch();

#endif
