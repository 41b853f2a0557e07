// Driver: runs a caller's problem on a pool of threads.
//
// The pass, per thread: place the thread, then ReadBatch under _readMutex and
// ProcessBatch with no lock until the data ends or the run stops, then
// MergeResult once under _resultMutex, then signal the completion counter.
// The two mutexes are never held together.
//
// Failures:
//  - QuorGoToCaller (the host's error) is caught in the task: that worker
//    stops without merging, the others stop reading at their next loop head
//    and merge what they have, and Driver calls HostResumeCaller once on the
//    calling thread after every task has signalled.
//  - Any other exception out of a worker (std::bad_alloc, std::length_error)
//    leaves the task's Run. The pool catches it and reports it to the run's
//    counter, which the task names (setCompleteTask): the task counts as
//    finished, the first such exception is kept, and the counter's stop
//    request makes the other tasks stop reading at their next loop head, as
//    for the host's error, and merge what they have. Driver never calls
//    HostResumeCaller for it; after the whole teardown it rethrows the kept
//    exception to its caller. If the host's error also came, HostResumeCaller
//    runs first: if it throws, its exception is the one that leaves.
//  - An exception on the calling thread (CreateWorker, allocating or handing
//    over a task, starting the pool, HostResumeCaller) raises the same stop
//    request before it unwinds past the pool, so that the tasks already
//    running come to an end and the pool's destructor, which waits for them,
//    returns. Then the pool, then the DriverState go, and the exception
//    reaches the caller. A task that was made but not yet handed over is
//    destroyed with its worker, if it has one.
#include <vorel/driver.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>
#include <vorelhost/tpcompletetask.h>
#include <vorelhost/tplocks.h>
#include <vorelhost/tpthreadpool.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>

namespace vorel {
namespace {

using vorelhost::tpCompleteTask;
using vorelhost::tpGuard;
using vorelhost::tpLockExclusive;
using vorelhost::tpMutex;

// The shared state of one run, on the calling thread's stack. Its members go
// in reverse order after the pool: _completeTask, _resultMutex, _readMutex.
struct DriverState {
  tpMutex _readMutex;            // serialises ReadBatch and the destruction of workers
  tpMutex _resultMutex;          // serialises MergeResult
  tpCompleteTask _completeTask;  // counts finished tasks
  // Flags that only go from false to true; a thread may see one late, at the
  // cost of one more batch.
  std::atomic<bool> _endOfData;  // some ReadBatch returned false; written under _readMutex
  std::atomic<bool> _stopped;    // some task caught QuorGoToCaller

  DriverState() : _completeTask(0), _endOfData(false), _stopped(false) {}
};

class ProblemTask final : public vorelhost::tpTaskObject {
 public:
  explicit ProblemTask(DriverState* state) : tpTaskObject(nullptr), _state(state) {
    setCompleteTask(&state->_completeTask);
  }

  // Workers die under the read lock, so never beside a ReadBatch.
  ~ProblemTask() override {
    tpGuard guard(_state->_readMutex, tpLockExclusive);
    _worker.reset();
  }

  int Run(void* arg) override;

  std::unique_ptr<WorkerBase> _worker;
  DriverState* _state;  // borrowed
  std::uint32_t _threadIndex = 0;

 private:
  void PlaceThread() const;
  bool RunShouldStop() const;
  bool ReadNextBatch();
  void MergeWorkerResult();
};

int ProblemTask::Run(void* arg) {
  static_cast<void>(arg);
  try {
    PlaceThread();
    while (!RunShouldStop()) {
      if (ReadNextBatch()) _worker->ProcessBatch();
    }
    MergeWorkerResult();
  } catch (const vorelhost::QuorGoToCaller&) {
    _state->_stopped = true;
  }
  _state->_completeTask.TaskDone();
  return 1;
}

// Read without a lock: a change seen late costs one more batch.
bool ProblemTask::RunShouldStop() const {
  return _state->_stopped || _state->_endOfData || _state->_completeTask.stopRequested();
}

// _endOfData is read again under the lock: once a ReadBatch has returned
// false on any thread, no thread calls it again.
bool ProblemTask::ReadNextBatch() {
  bool more = false;
  tpGuard guard(_state->_readMutex, tpLockExclusive);
  if (!_state->_endOfData) {
    more = _worker->ReadBatch();
    if (!more) _state->_endOfData = true;
  }
  return more;
}

void ProblemTask::MergeWorkerResult() {
  tpGuard guard(_state->_resultMutex, tpLockExclusive);
  _worker->MergeResult();
}

// Spreads the threads over the machine: thread t asks for the CPU whose number
// is t with its low k bits reversed, 2^k being the smallest power of two not
// below the CPU count c, so that neighbouring indices land far apart (on
// other sockets and cores before other hyperthreads of one core). Indices at
// or above c are not placed. With c no power of two the CPU asked for can be
// c or more; it is passed unchanged and the refusal ignored.
void ProblemTask::PlaceThread() const {
  // Three calls in this order, each time a task starts.
  std::uint32_t c = static_cast<std::uint32_t>(vorelhost::hostPhysicalCpuCount());
  c *= static_cast<std::uint32_t>(vorelhost::hostCoresPerCpuCount());
  c *= static_cast<std::uint32_t>(vorelhost::hostLogicalPerCoreCount());
  std::uint32_t t = _threadIndex;
  if (t >= c) return;
  std::uint32_t r = 0;
  // m is wider than 32 bits so that the doubling ends for c above 2^31.
  for (std::uint64_t m = 1; m < c; m *= 2) {
    r = 2 * r + (t & 1u);
    t >>= 1;
  }
  vorelhost::SetThreadIdealProcessor(vorelhost::GetCurrentThread(), r);
}

// Raises the run's stop request when an exception leaves Driver's body, so
// that the tasks already started finish and the pool's destructor can return.
class StopTasksOnUnwind {
 public:
  explicit StopTasksOnUnwind(tpCompleteTask& counter)
      : _counter(counter), _exceptionsAtStart(std::uncaught_exceptions()) {}
  ~StopTasksOnUnwind() {
    if (std::uncaught_exceptions() > _exceptionsAtStart) _counter.requestStop();
  }
  StopTasksOnUnwind(const StopTasksOnUnwind&) = delete;
  StopTasksOnUnwind& operator=(const StopTasksOnUnwind&) = delete;

 private:
  tpCompleteTask& _counter;
  int _exceptionsAtStart;
};

}  // namespace

void Driver(ProblemBase* problem, int nThreads) {
  // The budget goes in first, so that every CreateWorker can read it. The
  // shift is done in 32 bits, as the host defines the budget.
  const auto kilobytes = static_cast<std::uint32_t>(vorelhost::HostCacheKilobytes());
  problem->_cacheBytes = static_cast<std::int32_t>(kilobytes << 10);

  std::exception_ptr workerFailure;
  {
    DriverState state;
    const int n = nThreads >= 1 ? nThreads : vorelhost::HostThreadCount();
    state._completeTask.set(n);

    vorelhost::tpThreadPool pool(n, 0);
    StopTasksOnUnwind stopOnUnwind(state._completeTask);
    pool.init();
    pool.startAll();

    for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(n); ++i) {
      auto task = std::make_unique<ProblemTask>(&state);
      task->_worker.reset(problem->CreateWorker());
      task->_threadIndex = i;
      // The task starts now, while the next one is being made.
      pool.invoke(task.release(), nullptr, vorelhost::tpScopePool);
    }

    state._completeTask.waitAll();
    workerFailure = state._completeTask.firstFailure();
    // Only the host's error leads back to the host; the end of data does not.
    if (state._stopped) vorelhost::HostResumeCaller();
  }
  if (workerFailure) std::rethrow_exception(workerFailure);
}

}  // namespace vorel
