// The host's worker threads: how many there are (the command line's --threads), and the pool
// that ThreadedOperator::DoMultiProcess runs chunks on.
#pragma once

namespace kestrion {

// The number of worker threads that chunked tools run on; by default the machine's hardware
// threads.
int WorkerThreads();
// Sets the number of worker threads; n < 1 restores the default. Renders already running
// finish on the threads they started with.
void SetWorkerThreads(int n);

}  // namespace kestrion
