// Driver's contract seen from a problem that records every call: threads,
// locks, counts, failures and placement.
#include <vorel/driver.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <map>
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

using namespace std::chrono_literals;
using vorelhost::HostHooks;
using vorelhost::QuorGoToCaller;
using vorelhost::ScopedHostHooks;

// Runs Driver, ending the process if it has not returned within 60 s, so that
// a lost task shows as a failure of this test and not as a hang of the suite.
void DriverWithin60s(ProblemBase* problem, int nThreads) {
  std::promise<void> done;
  std::thread dog([returned = done.get_future()] {
    if (returned.wait_for(60s) == std::future_status::ready) return;
    std::fprintf(stderr, "Driver did not return within 60 s\n");
    std::abort();
  });
  struct Release {
    std::promise<void>& done;
    std::thread& dog;
    ~Release() { done.set_value(), dog.join(); }
  } release{done, dog};
  Driver(problem, nThreads);
}

// Waits up to 10 s for `ready`; false if it never came.
bool WaitFor(const std::function<bool()>& ready) {
  for (auto deadline = std::chrono::steady_clock::now() + 10s; !ready();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

enum class Stage { Create, Read, Process, Merge };

struct Plan {
  Plan(long nBatches = 10, Stage stage = Stage::Read, std::function<void()> thrower = {},
       std::set<unsigned> workers = {})
      : batches(nBatches),
        faultStage(stage),
        fault(std::move(thrower)),
        faultyWorkers(std::move(workers)) {}
  long batches = 10;  // ReadBatch returns true this many times in all; -1: endless
  Stage faultStage = Stage::Read;
  std::function<void()> fault;       // thrown by faultyWorkers at their first faultStage call
  std::set<unsigned> faultyWorkers;  // by index, the order of CreateWorker
  std::function<void(unsigned)> beforeCreate, inFirstProcess;  // optional waits, by index
};

// Counters are atomic where a test reads them while the run goes on.
struct WorkerLog {
  std::thread::id thread;  // of its first pool call
  std::atomic<int> reads{0};
  int processes = 0, merges = 0;
  bool threw = false;
  std::atomic<bool> destroyed{false};
  std::int32_t cacheBytes = 0;
};

// The row source is plain fields: only the read lock keeps them safe, and
// ThreadSanitizer sees any call made without it.
struct RecordingProblem : ProblemBase {
  explicit RecordingProblem(Plan p) : plan(std::move(p)) {}
  WorkerBase* CreateWorker() override;
  void Violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    violations.push_back(what);
  }
  int Destroyed() const {
    int count = 0;
    for (const WorkerLog& log : logs)
      count += log.destroyed;
    return count;
  }
  // Whatever went wrong: no violation, every worker made is destroyed, the
  // faulty ones did not merge and all others merged once.
  void ExpectCleanEnd(int nWorkers) const {
    for (const std::string& violation : violations)
      ADD_FAILURE() << violation;
    ASSERT_EQ(created.load(), nWorkers);
    EXPECT_EQ(Destroyed(), nWorkers);
    for (const WorkerLog& log : logs)
      EXPECT_EQ(log.merges, log.threw ? 0 : 1);
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
  std::atomic<bool> endSeen{false};
  std::atomic<unsigned> metInProcess{0};
};

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
    if (_p.plan.batches >= 0 && _p.batchesGiven == _p.plan.batches) {
      _p.endReported = _p.endSeen = true;
      return false;
    }
    ++_p.batchesGiven;
    return true;
  }
  void ProcessBatch() override {
    CheckThread();
    if (++_log.processes == 1 && _p.plan.inFirstProcess) _p.plan.inFirstProcess(_index);
    MaybeThrow(Stage::Process, _log.processes);
  }
  void MergeResult() override {
    CheckThread();
    Occupy occupy(_p, _p.inResultLock, "two MergeResult at once");
    MaybeThrow(Stage::Merge, 1);
    ++_log.merges;
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
    _p.plan.fault();
  }

  RecordingProblem& _p;
  unsigned _index;
  WorkerLog& _log;
};

WorkerBase* RecordingProblem::CreateWorker() {
  if (std::this_thread::get_id() != callerThread) Violation("CreateWorker off the caller's thread");
  const auto index = static_cast<unsigned>(logs.size());
  if (plan.beforeCreate) plan.beforeCreate(index);
  if (plan.faultStage == Stage::Create && plan.faultyWorkers.count(index) != 0) plan.fault();
  logs.emplace_back().cacheBytes = _cacheBytes;
  auto* worker = new RecordingWorker(*this, index);
  ++created;
  return worker;
}

const std::function<void()> kHostError = [] { throw QuorGoToCaller(); };
const std::function<void()> kBadAlloc = [] { throw std::bad_alloc(); };

// Counts the host's resume calls and checks their thread.
struct ResumeCounter {
  explicit ResumeCounter(HostHooks hooks = {}) : scope(Install(std::move(hooks))) {}
  HostHooks Install(HostHooks hooks) {
    hooks.resumeCaller = [this] { ++calls, onCaller = std::this_thread::get_id() == caller; };
    return hooks;
  }
  int calls = 0;
  bool onCaller = false;
  std::thread::id caller = std::this_thread::get_id();
  ScopedHostHooks scope;
};

// Faulty workers meet in their first ProcessBatch, so that all of them throw
// there before any of them can stop the others.
void MeetInFirstProcess(Plan& plan, RecordingProblem*& self) {
  plan.inFirstProcess = [&self](unsigned index) {
    const std::set<unsigned>& faulty = self->plan.faultyWorkers;
    if (faulty.count(index) == 0) return;
    ++self->metInProcess;
    if (!WaitFor([&] { return self->metInProcess.load() >= faulty.size(); }))
      self->Violation("faulty workers did not meet");
  };
}

class DriverContract : public ::testing::TestWithParam<std::tuple<int, long>> {};

TEST_P(DriverContract, EveryCallOnItsThreadUnderItsLock) {
  const auto [n, batches] = GetParam();
  ResumeCounter resume;
  RecordingProblem problem(Plan{batches});
  DriverWithin60s(&problem, n);
  problem.ExpectCleanEnd(n);
  EXPECT_EQ(resume.calls, 0);
  // Exactly one ReadBatch returned false; each of the others was processed.
  int processes = 0;
  for (const WorkerLog& log : problem.logs)
    processes += log.processes;
  EXPECT_EQ(processes, batches);
  EXPECT_EQ(problem.totalReads.load(), batches + 1);
  EXPECT_TRUE(problem.endReported);
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatches, DriverContract,
                         ::testing::Combine(::testing::Values(1, 2, 3, 8),
                                            ::testing::Values(0L, 1L, 5L, 200L)));

TEST(DriverHost, ThreadCountFromTheArgumentOrTheHostAndCacheBytesIn32Bits) {
  int hostCalls = 0, hostThreads = 3, kilobytes = 3;
  HostHooks hooks;
  hooks.threadCount = [&] { return ++hostCalls, hostThreads; };
  hooks.cacheKilobytes = [&] { return kilobytes; };
  ResumeCounter resume(hooks);
  for (int nThreads : {0, -1, INT_MIN, 2}) {
    RecordingProblem problem(Plan{});
    Driver(&problem, nThreads);
    problem.ExpectCleanEnd(nThreads == 2 ? 2 : 3);
    for (const WorkerLog& log : problem.logs)
      EXPECT_EQ(log.cacheBytes, 3072);
  }
  EXPECT_EQ(hostCalls, 3) << "an explicit count must not ask the host";
  // No threads from the host: nothing is made or read. 2^21 + 1 kilobytes
  // shifted by 10 overflow into the sign bit.
  hostThreads = 0;
  kilobytes = (1 << 21) + 1;
  RecordingProblem none(Plan{}), one(Plan{});
  Driver(&none, 0);
  EXPECT_EQ(none.created.load() + none.totalReads.load() + resume.calls, 0);
  Driver(&one, 1);
  EXPECT_EQ(one.logs.at(0).cacheBytes, INT_MIN + 1024);
}

// ProcessBatch holds no lock and the tasks run side by side: the first
// ProcessBatch of worker 0 waits for worker 1 to read, and CreateWorker for
// worker 1 waits until worker 0 is already reading. A task that starts after
// the end of the data goes straight to MergeResult.
TEST(DriverConcurrency, TasksRunWhileLaterOnesAreMadeAndProcessOutsideTheLock) {
  RecordingProblem* self = nullptr;
  Plan plan{50};
  plan.beforeCreate = [&self](unsigned index) {
    if (index == 1 && !WaitFor([&] { return self->totalReads.load() > 0; }))
      self->Violation("worker 0 did not start before worker 1 was made");
  };
  plan.inFirstProcess = [&self](unsigned index) {
    if (index == 0 && !WaitFor([&] { return self->created == 2 && self->logs[1].reads > 0; }))
      self->Violation("worker 1 could not read while worker 0 processed");
  };
  RecordingProblem problem(plan);
  self = &problem;
  DriverWithin60s(&problem, 2);
  problem.ExpectCleanEnd(2);

  Plan late{3};
  late.beforeCreate = [&self](unsigned index) {
    if (index > 0 && !WaitFor([&] { return self->endSeen.load(); }))
      self->Violation("the data did not end");
  };
  RecordingProblem lateProblem(late);
  self = &lateProblem;
  DriverWithin60s(&lateProblem, 3);
  lateProblem.ExpectCleanEnd(3);
  EXPECT_EQ(lateProblem.logs[0].processes, 3);
  EXPECT_EQ(lateProblem.logs[1].reads + lateProblem.logs[2].reads, 0);
}

class DriverHostError
    : public ::testing::TestWithParam<std::tuple<Stage, std::set<unsigned>, int>> {};

TEST_P(DriverHostError, OneResumeOnTheCallerHoweverManyThreadsStop) {
  const auto [stage, faulty, n] = GetParam();
  ResumeCounter resume;
  RecordingProblem* self = nullptr;
  Plan plan{stage == Stage::Merge ? 20 : -1, stage, kHostError, faulty};
  if (stage == Stage::Process) MeetInFirstProcess(plan, self);
  RecordingProblem problem(plan);
  self = &problem;
  DriverWithin60s(&problem, n);
  problem.ExpectCleanEnd(n);
  EXPECT_EQ(resume.calls, 1);
  EXPECT_TRUE(resume.onCaller);
  // A worker meant to fault in ReadBatch may find the run stopped before it reads.
  for (unsigned i : faulty)
    EXPECT_TRUE(problem.logs[i].threw || stage == Stage::Read) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Stages, DriverHostError,
    ::testing::Combine(::testing::Values(Stage::Read, Stage::Process, Stage::Merge),
                       ::testing::Values(std::set<unsigned>{0}, std::set<unsigned>{1},
                                         std::set<unsigned>{0, 2}),
                       ::testing::Values(3, 4)));

TEST(DriverHostError, ResumeThatThrowsLeavesAfterTheTeardown) {
  struct HostUnwind {};
  HostHooks hooks;
  bool onCaller = false;
  hooks.resumeCaller = [&onCaller, caller = std::this_thread::get_id()] {
    onCaller = std::this_thread::get_id() == caller;
    throw HostUnwind{};
  };
  ScopedHostHooks scope(hooks);
  RecordingProblem problem(Plan{-1, Stage::Process, kHostError, {1}});
  EXPECT_THROW(DriverWithin60s(&problem, 3), HostUnwind);
  EXPECT_TRUE(onCaller);
  problem.ExpectCleanEnd(3);
}

// With endless data, a task that never signalled would hang the run.
class DriverWorkerException : public ::testing::TestWithParam<Stage> {};

TEST_P(DriverWorkerException, ReachesTheCallerWithoutHangOrResume) {
  ResumeCounter resume;
  RecordingProblem problem(Plan{GetParam() == Stage::Merge ? 20 : -1, GetParam(), kBadAlloc, {1}});
  EXPECT_THROW(DriverWithin60s(&problem, 4), std::bad_alloc);
  EXPECT_EQ(resume.calls, 0);
  problem.ExpectCleanEnd(4);
}

INSTANTIATE_TEST_SUITE_P(Stages, DriverWorkerException,
                         ::testing::Values(Stage::Read, Stage::Process, Stage::Merge));

TEST(DriverWorkerException, AfterTheHostsResumeWhenBothHappen) {
  ResumeCounter resume;
  RecordingProblem* self = nullptr;
  Plan plan{-1, Stage::Process, kBadAlloc, {0, 1}};
  MeetInFirstProcess(plan, self);
  // Worker 0 raises the host's error instead, after the meeting.
  plan.inFirstProcess = [&self, meet = plan.inFirstProcess](unsigned index) {
    meet(index);
    if (index == 0) {
      self->logs[0].threw = true;
      kHostError();
    }
  };
  RecordingProblem problem(plan);
  self = &problem;
  EXPECT_THROW(DriverWithin60s(&problem, 3), std::bad_alloc);
  EXPECT_EQ(resume.calls, 1);
  problem.ExpectCleanEnd(3);
}

// Tasks 0 and 1 are reading endless data when CreateWorker fails for 2: they
// must be stopped, or the pool's destructor would wait for ever.
TEST(DriverWorkerException, CreateWorkerFailureStopsTheStartedTasks) {
  ResumeCounter resume;
  RecordingProblem* self = nullptr;
  Plan plan{-1, Stage::Create, [] { throw std::length_error("vector<T> too long"); }, {2}};
  plan.beforeCreate = [&self](unsigned index) {
    if (index == 2 && !WaitFor([&] { return self->logs[0].reads > 0 && self->logs[1].reads > 0; }))
      self->Violation("tasks 0 and 1 did not start");
  };
  RecordingProblem problem(plan);
  self = &problem;
  EXPECT_THROW(DriverWithin60s(&problem, 4), std::length_error);
  EXPECT_EQ(resume.calls, 0);
  problem.ExpectCleanEnd(2);
}

// The CPU a task asked for, kept per thread by the observer and taken by the
// task's first call, so that a pool thread serving two tasks cannot mix them.
thread_local long lastRequestedCpu = -1;

struct PlacedProblem : ProblemBase {
  struct Worker : WorkerBase {
    explicit Worker(long& cpu) : _cpu(cpu) {}
    bool ReadBatch() override { return false; }
    void ProcessBatch() override {}
    // Every task merges; no task reads if the data ended before it started.
    void MergeResult() override { _cpu = std::exchange(lastRequestedCpu, -1); }
    long& _cpu;
  };
  WorkerBase* CreateWorker() override { return new Worker(cpus.emplace_back(-2)); }
  std::deque<long> cpus;
};

class DriverPlacement
    : public ::testing::TestWithParam<std::pair<std::array<int, 3>, std::vector<long>>> {};

TEST_P(DriverPlacement, BitReversedIndexBelowTheCpuCount) {
  const auto& [factors, expected] = GetParam();
  std::mutex mutex;
  std::map<std::thread::id, std::string> countCalls;  // each task asks P, C, L in turn
  const auto counter = [&](char which, int value) {
    return [&, which, value] {
      std::lock_guard<std::mutex> lock(mutex);
      countCalls[std::this_thread::get_id()] += which;
      return value;
    };
  };
  HostHooks hooks;
  hooks.physicalCpuCount = counter('P', factors[0]);
  hooks.coresPerCpuCount = counter('C', factors[1]);
  hooks.logicalPerCoreCount = counter('L', factors[2]);
  ScopedHostHooks scope(hooks);
  vorelhost::ScopedPlacementObserver observer([](vorelhost::ThreadHandle thread, unsigned cpu) {
    EXPECT_TRUE(thread == vorelhost::GetCurrentThread());
    lastRequestedCpu = cpu;
  });
  PlacedProblem problem;
  Driver(&problem, 8);
  EXPECT_EQ(std::vector<long>(problem.cpus.begin(), problem.cpus.end()), expected);
  std::string calls;
  for (const auto& [thread, sequence] : countCalls) {
    EXPECT_EQ(sequence.size() % 3, 0u);
    calls += sequence;
  }
  EXPECT_EQ(calls.size(), 3u * 8u);
  for (std::size_t i = 0; i < calls.size(); ++i)
    EXPECT_EQ(calls[i], "PCL"[i % 3]) << i;
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
