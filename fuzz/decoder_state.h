// What the decoder keeps: put back as at program start, and checked.
//
// The rules. They hold after any sequence of blocks:
//   ring     Every index is in its range. A slot's time stamps are not negative and belong to the slot; it holds no
//            unknown flag, and where it was never written, nothing. The derived figures are not negative. The run that
//            find_valid_index finds is the longest unbroken one behind the head. Of the CPU samples as many are held as
//            were added, at most 500.
//   list     Linked both ways, from head to tail; its size is the sum of its nodes' charges and at most the limit. A
//            node's time is a number's decimal text, its name at most 14 bytes without a zero, its process not 0.
//   history  A record that was never used holds nothing. A record with a name is the one that its process is found by.
//            The record behind the last index is as it was.
//   locks    None is held.
#pragma once

namespace vestra_fuzz {

// The ring, the history and the list as at program start. The records of the history that were never used stay
// untouched: there are 32768.
void reset_decoder();

void check_ring();
void check_list();
void check_history();
void check_decoder();  // all of it

}  // namespace vestra_fuzz
