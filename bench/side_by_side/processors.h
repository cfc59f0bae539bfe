// Sender and receiver on different processors.
#pragma once

namespace kav_bench {

// The processor that is kept for the sender: the first that this process may use; -1 when there is
// no other.
int sender_processor();
// The calling thread, and what it starts, runs there only, or anywhere else; -1: nothing changes.
void stay_on(int processor);
void stay_off(int processor);

}  // namespace kav_bench
