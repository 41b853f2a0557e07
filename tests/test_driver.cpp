// Driver's contract seen from a problem that records every call: threads,
// locks, counts, failures and placement. A run that loses a task hangs until
// the suite's time-out; one that misses a stop ends with a violation.
#include <vorel/driver.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

using vorelhost::HostHooks;
using vorelhost::QuorGoToCaller;
using vorelhost::ScopedHostHooks;

enum class Stage { Create, Read, Process, Merge };

struct RecordingProblem;

struct Plan {
  long batches = 10;  // ReadBatch returns true this many times in all; -1: endless
  Stage faultStage = Stage::Read;
  std::function<void()> fault = {};       // thrown by faultyWorkers at their first faultStage call
  std::set<unsigned> faultyWorkers = {};  // by index, the order of CreateWorker
  // Called with the problem and the worker's index.
  std::function<void(RecordingProblem&, unsigned)> beforeCreate = {}, inFirstProcess = {};
};

struct WorkerLog {
  std::thread::id thread;  // of its first pool call
  std::atomic<int> reads{0};
  int processes = 0, merges = 0;
  bool threw = false, destroyed = false;
  std::int32_t cacheBytes = 0;
  long cpu = -1;  // asked for by the thread that merged, -1 for none
};

// The row source is plain fields: only the read lock keeps them safe, and
// ThreadSanitizer sees any call made without it.
struct RecordingProblem : ProblemBase {
  explicit RecordingProblem(Plan p) : plan(std::move(p)) {}
  WorkerBase* CreateWorker() override;
  void Fault() {
    auto none = std::chrono::steady_clock::time_point();
    firstFault.compare_exchange_strong(none, std::chrono::steady_clock::now());
    plan.fault();
  }
  bool StillReadingAfterAFault() {
    const auto fault = firstFault.load();
    if (fault == std::chrono::steady_clock::time_point()
        || std::chrono::steady_clock::now() - fault < std::chrono::seconds(5))
      return false;
    Violation("still reading 5 s after a worker failed: the stop was missed");
    return endReported = true;
  }
  void Violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    violations.push_back(what);
  }
  // Whatever went wrong: no violation, every worker made is destroyed, the
  // faulty ones did not merge and all others merged once.
  void ExpectCleanEnd(int nWorkers) const {
    for (const std::string& violation : violations)
      ADD_FAILURE() << violation;
    ASSERT_EQ(created.load(), nWorkers);
    for (const WorkerLog& log : logs) {
      EXPECT_TRUE(log.destroyed);
      EXPECT_EQ(log.merges, log.threw ? 0 : 1);
    }
  }

  Plan plan;
  std::thread::id callerThread = std::this_thread::get_id();
  std::deque<WorkerLog> logs;   // grows on the caller's thread only
  std::atomic<int> created{0};  // published after each log is in place
  std::vector<std::string> violations;
  std::mutex mutex;
  long batchesGiven = 0;     // read lock
  bool endReported = false;  // read lock
  std::atomic<int> inReadLock{0}, inResultLock{0}, totalReads{0};
  // When a worker first failed: endless data then ends 5 s later with a
  // violation, so that a run that misses its stop fails instead of hanging.
  std::atomic<std::chrono::steady_clock::time_point> firstFault{};
  std::atomic<unsigned> metInProcess{0};
};

// The CPU a task asked for, kept per thread by a placement observer and taken
// by the task's MergeResult (every task merges), so that a pool thread serving
// two tasks cannot mix them.
thread_local long lastRequestedCpu = -1;

class RecordingWorker : public WorkerBase {
 public:
  RecordingWorker(RecordingProblem& problem, unsigned index)
      : _p(problem), _index(index), _log(problem.logs[index]) {}
  ~RecordingWorker() override {
    Occupy occupy(_p, _p.inReadLock, "worker destructor beside ReadBatch");
    _log.destroyed = true;
  }

  bool ReadBatch() override {
    CheckThread();
    Occupy occupy(_p, _p.inReadLock, "two ReadBatch at once");
    ++_log.reads;
    ++_p.totalReads;
    if (_p.endReported) _p.Violation("ReadBatch after it returned false");
    MaybeThrow(Stage::Read, _log.reads);
    if (_p.StillReadingAfterAFault()) return false;
    if (_p.plan.batches >= 0 && _p.batchesGiven == _p.plan.batches) {
      _p.endReported = true;
      return false;
    }
    ++_p.batchesGiven;
    return true;
  }
  void ProcessBatch() override {
    CheckThread();
    if (++_log.processes == 1 && _p.plan.inFirstProcess) _p.plan.inFirstProcess(_p, _index);
    MaybeThrow(Stage::Process, _log.processes);
  }
  void MergeResult() override {
    CheckThread();
    Occupy occupy(_p, _p.inResultLock, "two MergeResult at once");
    MaybeThrow(Stage::Merge, 1);
    ++_log.merges;
    _log.cpu = std::exchange(lastRequestedCpu, -1);
  }

 private:
  // A region one lock should make exclusive, widened so that an overlap can show.
  struct Occupy {
    Occupy(RecordingProblem& p, std::atomic<int>& count, const char* what) : _count(count) {
      if (_count.fetch_add(1) != 0) p.Violation(what);
      std::this_thread::yield();
    }
    ~Occupy() { _count.fetch_sub(1); }
    std::atomic<int>& _count;
  };
  void CheckThread() {
    const std::thread::id self = std::this_thread::get_id();
    if (self == _p.callerThread) _p.Violation("worker called on the caller's thread");
    if (_log.thread == std::thread::id()) _log.thread = self;
    if (_log.thread != self) _p.Violation("one worker called on two threads");
  }
  void MaybeThrow(Stage stage, int call) {
    if (call != 1 || stage != _p.plan.faultStage || _p.plan.faultyWorkers.count(_index) == 0)
      return;
    _log.threw = true;
    _p.Fault();
  }

  RecordingProblem& _p;
  unsigned _index;
  WorkerLog& _log;
};

WorkerBase* RecordingProblem::CreateWorker() {
  if (std::this_thread::get_id() != callerThread) Violation("CreateWorker off the caller's thread");
  const auto index = static_cast<unsigned>(logs.size());
  if (plan.beforeCreate) plan.beforeCreate(*this, index);
  if (plan.faultStage == Stage::Create && plan.faultyWorkers.count(index) != 0) Fault();
  logs.emplace_back().cacheBytes = _cacheBytes;
  auto* worker = new RecordingWorker(*this, index);
  ++created;
  return worker;
}

// Waits up to 10 s for `ready`; a violation if it never came.
void WaitFor(RecordingProblem& p, const std::function<bool()>& ready, const char* what) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (; !ready(); std::this_thread::yield())
    if (std::chrono::steady_clock::now() > deadline) return p.Violation(what);
}

const std::function<void()> kHostError = [] { throw QuorGoToCaller(); };
const std::function<void()> kBadAlloc = [] { throw std::bad_alloc(); };

// Counts the host's resume calls and checks their thread; a host that unwinds
// from its resume throws Unwind there.
struct ResumeCounter {
  struct Unwind {};
  explicit ResumeCounter(HostHooks hooks = {}, bool unwinds = false)
      : scope(Install(std::move(hooks), unwinds)) {}
  HostHooks Install(HostHooks hooks, bool unwinds) {
    hooks.resumeCaller = [this, unwinds] {
      ++calls;
      onCaller = std::this_thread::get_id() == caller;
      if (unwinds) throw Unwind();
    };
    return hooks;
  }
  int calls = 0;
  bool onCaller = false;
  std::thread::id caller = std::this_thread::get_id();
  ScopedHostHooks scope;
};

class DriverContract : public ::testing::TestWithParam<std::tuple<int, long>> {};

TEST_P(DriverContract, EveryCallOnItsThreadUnderItsLock) {
  const auto [n, batches] = GetParam();
  ResumeCounter resume;
  RecordingProblem problem(Plan{batches});
  Driver(&problem, n);
  problem.ExpectCleanEnd(n);
  EXPECT_EQ(resume.calls, 0);
  // Exactly one ReadBatch returned false; each of the others was processed.
  int processes = 0;
  for (const WorkerLog& log : problem.logs)
    processes += log.processes;
  EXPECT_EQ(processes, batches);
  EXPECT_EQ(problem.totalReads.load(), batches + 1);
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatches, DriverContract,
                         ::testing::Combine(::testing::Values(1, 2, 3, 8),
                                            ::testing::Values(0L, 1L, 5L, 200L)));

TEST(DriverHost, ThreadCountFromTheArgumentOrTheHostAndCacheBytesIn32Bits) {
  int hostCalls = 0, hostThreads = 3;
  HostHooks hooks;
  hooks.cacheKilobytes = [] { return (1 << 21) + 1; };  // shifted by 10: into the sign bit
  hooks.threadCount = [&] {
    ++hostCalls;
    return hostThreads;
  };
  ResumeCounter resume(hooks);
  for (int nThreads : {0, -1, INT_MIN, 2}) {
    RecordingProblem problem(Plan{});
    Driver(&problem, nThreads);
    problem.ExpectCleanEnd(nThreads == 2 ? 2 : 3);
    EXPECT_EQ(problem.logs[0].cacheBytes, INT_MIN + 1024);
  }
  EXPECT_EQ(hostCalls, 3) << "an explicit count must not ask the host";
  hostThreads = 0;  // no threads from the host: nothing is made or read
  RecordingProblem none(Plan{});
  Driver(&none, 0);
  EXPECT_EQ(none.created.load() + none.totalReads.load() + resume.calls, 0);
}

// ProcessBatch holds no lock and the tasks run side by side: the first
// ProcessBatch of worker 0 waits for worker 1 to read, and CreateWorker for
// worker 1 waits until worker 0 is already reading.
TEST(DriverConcurrency, TasksRunWhileLaterOnesAreMadeAndProcessOutsideTheLock) {
  Plan plan{50};
  plan.beforeCreate = [](RecordingProblem& p, unsigned index) {
    if (index != 1) return;
    WaitFor(
        p, [&] { return p.totalReads > 0; }, "worker 1 made before worker 0 read");
  };
  plan.inFirstProcess = [](RecordingProblem& p, unsigned index) {
    if (index != 0) return;
    WaitFor(
        p, [&] { return p.created == 2 && p.logs[1].reads > 0; },
        "worker 1 could not read while worker 0 processed");
  };
  RecordingProblem problem(plan);
  Driver(&problem, 2);
  problem.ExpectCleanEnd(2);
}

// Faulty workers meet in their first ProcessBatch, so that all of them throw
// there before any of them can stop the others. With endless data, a task
// that never signalled would hang the run, and one that missed the stop ends
// with a violation.
class DriverFault
    : public ::testing::TestWithParam<std::tuple<Stage, std::set<unsigned>, int, bool>> {};

TEST_P(DriverFault, HostErrorResumesOnceOnTheCallerAndAnExceptionReachesIt) {
  const auto [stage, faulty, n, hostError] = GetParam();
  ResumeCounter resume;
  Plan plan{stage == Stage::Merge ? 20 : -1, stage, hostError ? kHostError : kBadAlloc, faulty};
  plan.inFirstProcess = [stage = stage](RecordingProblem& p, unsigned index) {
    if (stage != Stage::Process || p.plan.faultyWorkers.count(index) == 0) return;
    ++p.metInProcess;
    WaitFor(
        p, [&] { return p.metInProcess >= p.plan.faultyWorkers.size(); },
        "faulty workers did not meet");
  };
  RecordingProblem problem(plan);
  if (hostError) {
    Driver(&problem, n);
  } else {
    EXPECT_THROW(Driver(&problem, n), std::bad_alloc);
  }
  problem.ExpectCleanEnd(n);
  EXPECT_EQ(resume.calls, hostError ? 1 : 0);
  EXPECT_EQ(resume.onCaller, hostError);
  // A worker meant to fault in ReadBatch may find the run stopped before it reads.
  for (unsigned i : faulty)
    EXPECT_TRUE(problem.logs[i].threw || stage == Stage::Read) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Stages, DriverFault,
    ::testing::Combine(::testing::Values(Stage::Read, Stage::Process, Stage::Merge),
                       ::testing::Values(std::set<unsigned>{0}, std::set<unsigned>{1},
                                         std::set<unsigned>{0, 2}),
                       ::testing::Values(3, 4), ::testing::Bool()));

TEST(DriverFault, ResumeThatThrowsLeavesAfterTheTeardown) {
  ResumeCounter resume({}, true);
  RecordingProblem problem(Plan{-1, Stage::Process, kHostError, {1}});
  EXPECT_THROW(Driver(&problem, 3), ResumeCounter::Unwind);
  EXPECT_TRUE(resume.onCaller);
  problem.ExpectCleanEnd(3);
}

// Tasks 0 and 1 are reading endless data when CreateWorker fails for 2: they
// must be stopped, or the pool's destructor would wait for ever.
TEST(DriverFault, CreateWorkerFailureStopsTheStartedTasks) {
  ResumeCounter resume;
  Plan plan{-1, Stage::Create, [] { throw std::length_error("vector<T> too long"); }, {2}};
  plan.beforeCreate = [](RecordingProblem& p, unsigned index) {
    if (index != 2) return;
    WaitFor(
        p, [&] { return p.logs[0].reads > 0 && p.logs[1].reads > 0; },
        "tasks 0 and 1 did not start");
  };
  RecordingProblem problem(plan);
  EXPECT_THROW(Driver(&problem, 4), std::length_error);
  EXPECT_EQ(resume.calls, 0);
  problem.ExpectCleanEnd(2);
}

class DriverPlacement
    : public ::testing::TestWithParam<std::pair<std::array<int, 3>, std::vector<long>>> {};

TEST_P(DriverPlacement, BitReversedIndexBelowTheCpuCount) {
  const auto& [factors, expected] = GetParam();
  HostHooks hooks;
  hooks.physicalCpuCount = [c = factors[0]] { return c; };
  hooks.coresPerCpuCount = [c = factors[1]] { return c; };
  hooks.logicalPerCoreCount = [c = factors[2]] { return c; };
  ScopedHostHooks scope(hooks);
  vorelhost::ScopedPlacementObserver observer([](vorelhost::ThreadHandle thread, unsigned cpu) {
    EXPECT_TRUE(thread == vorelhost::GetCurrentThread());
    lastRequestedCpu = cpu;
  });
  RecordingProblem problem(Plan{0});
  Driver(&problem, 8);
  problem.ExpectCleanEnd(8);
  std::vector<long> cpus;
  for (const WorkerLog& log : problem.logs)
    cpus.push_back(log.cpu);
  EXPECT_EQ(cpus, expected);
}

// The three factors of c, then the CPU asked for by indices 0..7 (-1: none).
INSTANTIATE_TEST_SUITE_P(
    WorkedValues, DriverPlacement,
    ::testing::Values(
        std::pair{std::array{1, 1, 1}, std::vector<long>{0, -1, -1, -1, -1, -1, -1, -1}},
        std::pair{std::array{1, 2, 1}, std::vector<long>{0, 1, -1, -1, -1, -1, -1, -1}},
        std::pair{std::array{2, 1, 2}, std::vector<long>{0, 2, 1, 3, -1, -1, -1, -1}},
        std::pair{std::array{1, 3, 2}, std::vector<long>{0, 4, 2, 6, 1, 5, -1, -1}},
        std::pair{std::array{2, 2, 2}, std::vector<long>{0, 4, 2, 6, 1, 5, 3, 7}}));

}  // namespace
}  // namespace vorel
