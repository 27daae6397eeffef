// Checks the state of the decoder, and resets it to that at program start.
//
// These rules hold after any sequence of blocks:
//   ring     Every index is in range. A slot's time stamps are not negative and belong to the slot. A slot has no
//            unknown flag, and is empty if it was never written. Derived figures are not negative. find_valid_index
//            finds the longest unbroken run that ends at the head. The last 500 CPU samples are kept, all if fewer.
//   list     Linked both ways, from head to tail. Its size is the sum of its nodes' charges and at most the limit. A
//            node's time is the decimal text of a number; its name has at most 14 bytes and no zero byte.
//   history  An unused record is empty. A lookup of a process finds the record with its name. The extra record after
//            the last index stays unused.
//   locks    None is held.
#pragma once

namespace vestra_fuzz {

// Resets the ring, the history and the list. Skips history records that were never used: there are 32768.
void reset_decoder();

void check_ring();
void check_list();
void check_history();
void check_decoder();  // all of it

}  // namespace vestra_fuzz
