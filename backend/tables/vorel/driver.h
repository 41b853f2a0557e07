// Driver: one pass over a caller's data on a pool of threads.
//
// A caller derives a problem from ProblemBase and a worker from WorkerBase and
// calls Driver. Each of n threads gets its own worker (made by CreateWorker on
// the calling thread) and loops: ReadBatch under a read lock, ProcessBatch with
// no lock, until some ReadBatch returns false; then each worker runs
// MergeResult once under a result lock. The two locks are never held together.
//
//   operation              thread            lock held     how often
//   CreateWorker           caller of Driver  none          once per thread, in index order
//   ReadBatch              its pool thread   read lock     until one returns false, never after
//   ProcessBatch           its pool thread   none          once per ReadBatch that returned true
//   MergeResult            its pool thread   result lock   at most once per worker
//   worker destructor      a pool thread     read lock     once per worker
//
// A batch left in hand by a ReadBatch that returned false is not processed:
// report a last short batch with true and the end with the following call.
//
// Errors. A host error (vorelhost::QuorGoToCaller) thrown in a worker stops
// that worker without merging; the others stop reading and merge what they
// have, and Driver calls vorelhost::HostResumeCaller once on the calling
// thread. Any other exception out of a worker (std::bad_alloc, say) also stops
// the run in the same way, without HostResumeCaller; once every thread has
// finished and the pool is torn down, the first such exception is rethrown to
// the caller of Driver (after HostResumeCaller, if a host error came too and
// that call returned). An exception out of CreateWorker stops the workers
// already running, waits for them and destroys them before it leaves Driver.
// After any exception the caller's shared result holds a partial pass.
#pragma once

#include <cstdint>

namespace vorel {

class WorkerBase {
 public:
  virtual ~WorkerBase() = default;
  // True when the worker now holds a batch to process; false at the end of data.
  virtual bool ReadBatch() = 0;
  virtual void ProcessBatch() = 0;
  virtual void MergeResult() = 0;
};

class ProblemBase;
void Driver(ProblemBase* problem, int nThreads);

class ProblemBase {
 public:
  virtual ~ProblemBase() = default;
  // A new worker, owned by the run from then on. Called on the thread that
  // called Driver while earlier workers are already running: what it reads of
  // the problem must be safe beside them.
  virtual WorkerBase* CreateWorker() = 0;

 protected:
  // The host's memory budget in bytes, written by Driver before the first
  // CreateWorker. Nothing in the library reads it.
  std::int32_t _cacheBytes = 0;

 private:
  friend void Driver(ProblemBase* problem, int nThreads);
};

// Runs the pass with nThreads threads; a value below 1 takes the host's
// default thread count. Returns when every thread has finished and every
// worker has been destroyed. The problem stays the caller's.
void Driver(ProblemBase* problem, int nThreads);

}  // namespace vorel
