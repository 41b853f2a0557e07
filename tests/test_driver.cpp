// Driver's contract seen from a problem that records every call: threads,
// locks, counts, failures and placement.
#include <vorel/driver.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

using namespace std::chrono_literals;
using vorelhost::HostHooks;
using vorelhost::QuorGoToCaller;
using vorelhost::ScopedHostHooks;

// Ends the process if a test hangs, so that a lost TaskDone shows as a
// failure here and not as a time-out of the whole suite.
class Watchdog {
 public:
  Watchdog() : _thread([this] { Watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _done = true;
    }
    _wake.notify_one();
    _thread.join();
  }

 private:
  void Watch() {
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_wake.wait_for(lock, 60s, [this] { return _done; })) {
      std::fprintf(stderr, "Driver did not return within 60 s\n");
      std::abort();
    }
  }
  std::mutex _mutex;
  std::condition_variable _wake;
  bool _done = false;
  std::thread _thread;
};

// Waits up to 10 s for `ready`; false if it never came.
bool WaitFor(const std::function<bool()>& ready) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

enum class Stage { Create, Read, Process, Merge };
enum class Fault { None, Host, BadAlloc, LengthError };

struct Plan {
  long batches = 10;  // ReadBatch returns true this many times in all; -1: endless
  Stage faultStage = Stage::Read;
  Fault fault = Fault::None;
  std::set<unsigned> faultyWorkers;  // throw at their first call of faultStage
  // Optional waits, by worker index (the order of CreateWorker).
  std::function<void(unsigned)> beforeCreate;
  std::function<void(unsigned)> inFirstProcess;
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

// The problem keeps its row source as plain fields: only the read lock keeps
// them safe, and ThreadSanitizer sees any call made without it.
class RecordingProblem : public ProblemBase {
 public:
  explicit RecordingProblem(Plan plan) : _plan(std::move(plan)) {}
  WorkerBase* CreateWorker() override;

  void Violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(_mutex);
    violations.push_back(what);
  }
  void Throw(Fault fault) {
    if (fault == Fault::Host) throw QuorGoToCaller();
    if (fault == Fault::BadAlloc) throw std::bad_alloc();
    throw std::length_error("vector<T> too long");
  }
  int Created() const { return created.load(); }
  int Destroyed() const {
    int count = 0;
    for (const WorkerLog& log : logs) count += log.destroyed;
    return count;
  }

  Plan _plan;
  std::thread::id callerThread = std::this_thread::get_id();
  std::deque<WorkerLog> logs;  // grows on the caller's thread only
  std::atomic<int> created{0};  // published after each log is in place
  std::vector<std::string> violations;
  long batchesGiven = 0;      // read lock
  bool endReported = false;   // read lock
  std::atomic<int> inReadLock{0}, inResultLock{0};
  std::atomic<int> totalReads{0}, mergesDone{0};
  std::atomic<bool> endSeen{false};
  std::atomic<unsigned> metInProcess{0};
  std::mutex _mutex;
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
    if (_p._plan.batches >= 0 && _p.batchesGiven == _p._plan.batches) {
      _p.endReported = true;
      _p.endSeen = true;
      return false;
    }
    ++_p.batchesGiven;
    return true;
  }

  void ProcessBatch() override {
    CheckThread();
    ++_log.processes;
    if (_log.processes == 1 && _p._plan.inFirstProcess) _p._plan.inFirstProcess(_index);
    MaybeThrow(Stage::Process, _log.processes);
  }

  void MergeResult() override {
    CheckThread();
    Occupy occupy(_p, _p.inResultLock, "two MergeResult at once");
    MaybeThrow(Stage::Merge, 1);
    ++_log.merges;
    ++_p.mergesDone;
  }

 private:
  // Marks a region that one lock should make exclusive, and widens it a
  // little so that an overlap has a chance to show.
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
    if (call != 1 || stage != _p._plan.faultStage || _p._plan.faultyWorkers.count(_index) == 0)
      return;
    _log.threw = true;
    _p.Throw(_p._plan.fault);
  }

  RecordingProblem& _p;
  unsigned _index;
  WorkerLog& _log;
};

WorkerBase* RecordingProblem::CreateWorker() {
  if (std::this_thread::get_id() != callerThread) Violation("CreateWorker off the caller's thread");
  const auto index = static_cast<unsigned>(logs.size());
  if (_plan.beforeCreate) _plan.beforeCreate(index);
  if (_plan.faultStage == Stage::Create && _plan.faultyWorkers.count(index) != 0)
    Throw(_plan.fault);
  logs.emplace_back().cacheBytes = _cacheBytes;
  auto* worker = new RecordingWorker(*this, index);
  ++created;
  return worker;
}

// Counts the host's resume calls and checks their thread.
struct ResumeCounter {
  explicit ResumeCounter(HostHooks hooks = {}) : _scope(Install(std::move(hooks))) {}
  HostHooks Install(HostHooks hooks) {
    hooks.resumeCaller = [this] {
      ++calls;
      onCaller = std::this_thread::get_id() == caller;
    };
    return hooks;
  }
  int calls = 0;
  bool onCaller = false;
  std::thread::id caller = std::this_thread::get_id();
  ScopedHostHooks _scope;
};

void ExpectNoViolations(const RecordingProblem& problem) {
  for (const std::string& violation : problem.violations) ADD_FAILURE() << violation;
}

// ---------------------------------------------------------------- normal runs

class DriverContract : public ::testing::TestWithParam<std::tuple<int, long>> {};

TEST_P(DriverContract, EveryCallOnItsThreadUnderItsLock) {
  const auto [n, batches] = GetParam();
  ResumeCounter resume;
  Plan plan;
  plan.batches = batches;
  RecordingProblem problem(plan);
  {
    Watchdog dog;
    Driver(&problem, n);
  }
  ExpectNoViolations(problem);
  ASSERT_EQ(problem.Created(), n);
  EXPECT_EQ(problem.Destroyed(), n);
  EXPECT_EQ(resume.calls, 0);
  EXPECT_TRUE(problem.endReported);
  // Exactly one ReadBatch returned false; each of the others was processed.
  int processes = 0;
  for (const WorkerLog& log : problem.logs) {
    EXPECT_EQ(log.merges, 1);
    processes += log.processes;
  }
  EXPECT_EQ(processes, batches);
  EXPECT_EQ(problem.totalReads.load(), batches + 1);
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatches, DriverContract,
                         ::testing::Combine(::testing::Values(1, 2, 3, 8),
                                            ::testing::Values(0L, 1L, 5L, 200L)));

TEST(DriverThreadCount, FromTheArgumentOrTheHost) {
  int hostCalls = 0;
  HostHooks hooks;
  hooks.threadCount = [&hostCalls] {
    ++hostCalls;
    return 3;
  };
  ScopedHostHooks scope(hooks);
  for (int nThreads : {0, -1, -7, INT_MIN}) {
    RecordingProblem problem(Plan{});
    Driver(&problem, nThreads);
    EXPECT_EQ(problem.Created(), 3) << "nThreads " << nThreads;
    EXPECT_EQ(problem.Destroyed(), 3);
  }
  EXPECT_EQ(hostCalls, 4);
  RecordingProblem problem(Plan{});
  Driver(&problem, 2);
  EXPECT_EQ(problem.Created(), 2);
  EXPECT_EQ(hostCalls, 4) << "an explicit count must not ask the host";
}

TEST(DriverThreadCount, NoThreadsFromTheHostMakesNothing) {
  HostHooks hooks;
  hooks.threadCount = [] { return 0; };
  ResumeCounter resume(hooks);
  RecordingProblem problem(Plan{});
  Driver(&problem, 0);
  EXPECT_EQ(problem.Created(), 0);
  EXPECT_EQ(problem.totalReads.load(), 0);
  EXPECT_EQ(resume.calls, 0);
}

TEST(DriverBudget, CacheBytesSetBeforeTheFirstWorkerIn32Bits) {
  // 2^21 + 1 kilobytes shifted by 10 overflows into the sign bit.
  for (const auto& [kilobytes, bytes] :
       {std::pair{3, 3072}, std::pair{(1 << 21) + 1, INT_MIN + 1024}}) {
    HostHooks hooks;
    hooks.cacheKilobytes = [k = kilobytes] { return k; };
    ScopedHostHooks scope(hooks);
    RecordingProblem problem(Plan{});
    Driver(&problem, 2);
    for (const WorkerLog& log : problem.logs) EXPECT_EQ(log.cacheBytes, bytes);
  }
}

// ProcessBatch holds no lock and the tasks run side by side: the first
// ProcessBatch of worker 0 waits for worker 1 to read, and CreateWorker for
// worker 1 waits until worker 0 is already reading.
TEST(DriverConcurrency, TasksRunWhileLaterOnesAreMadeAndProcessOutsideTheLock) {
  Plan plan;
  plan.batches = 50;
  RecordingProblem* self = nullptr;
  plan.beforeCreate = [&self](unsigned index) {
    if (index == 1 && !WaitFor([&] { return self->totalReads.load() > 0; }))
      self->Violation("worker 0 did not start before worker 1 was made");
  };
  plan.inFirstProcess = [&self](unsigned index) {
    if (index == 0 && !WaitFor([&] { return self->Created() == 2 && self->logs[1].reads > 0; }))
      self->Violation("worker 1 could not read while worker 0 processed");
  };
  RecordingProblem problem(plan);
  self = &problem;
  Watchdog dog;
  Driver(&problem, 2);
  ExpectNoViolations(problem);
}

TEST(DriverConcurrency, TaskStartingAfterTheEndGoesStraightToMerge) {
  Plan plan;
  plan.batches = 3;
  RecordingProblem* self = nullptr;
  plan.beforeCreate = [&self](unsigned index) {
    if (index > 0 && !WaitFor([&] { return self->endSeen.load(); }))
      self->Violation("the data did not end");
  };
  RecordingProblem problem(plan);
  self = &problem;
  Watchdog dog;
  Driver(&problem, 3);
  ExpectNoViolations(problem);
  EXPECT_EQ(problem.logs[0].processes, 3);
  for (unsigned i = 1; i < 3; ++i) {
    EXPECT_EQ(problem.logs[i].reads, 0);
    EXPECT_EQ(problem.logs[i].merges, 1);
  }
}

// ---------------------------------------------------------------- failures

// Workers that fault in ProcessBatch meet there first, so that all of them
// throw before any of them can stop the others.
void MeetInFirstProcess(Plan& plan, RecordingProblem*& self) {
  plan.inFirstProcess = [&self](unsigned index) {
    const std::set<unsigned>& faulty = self->_plan.faultyWorkers;
    if (faulty.count(index) == 0) return;
    ++self->metInProcess;
    if (!WaitFor([&] { return self->metInProcess.load() >= faulty.size(); }))
      self->Violation("faulty workers did not meet");
  };
}

// Whatever the stage and however many workers fault: the faulty ones do not
// merge, all others merge once, every worker is destroyed.
void ExpectStoppedRun(const RecordingProblem& problem, int n) {
  ExpectNoViolations(problem);
  ASSERT_EQ(problem.Created(), n);
  EXPECT_EQ(problem.Destroyed(), n);
  int threw = 0;
  for (const WorkerLog& log : problem.logs) {
    EXPECT_EQ(log.merges, log.threw ? 0 : 1);
    threw += log.threw;
  }
  EXPECT_GE(threw, 1);
}

class DriverHostError
    : public ::testing::TestWithParam<std::tuple<Stage, std::set<unsigned>, int>> {};

TEST_P(DriverHostError, OneResumeOnTheCallerHoweverManyThreadsStop) {
  const auto [stage, faulty, n] = GetParam();
  ResumeCounter resume;
  Plan plan;
  plan.batches = stage == Stage::Merge ? 20 : -1;
  plan.faultStage = stage;
  plan.fault = Fault::Host;
  plan.faultyWorkers = faulty;
  RecordingProblem* self = nullptr;
  if (stage == Stage::Process) MeetInFirstProcess(plan, self);
  RecordingProblem problem(plan);
  self = &problem;
  {
    Watchdog dog;
    Driver(&problem, n);
  }
  ExpectStoppedRun(problem, n);
  EXPECT_EQ(resume.calls, 1);
  EXPECT_TRUE(resume.onCaller);
  // A worker meant to fault in ReadBatch may find the run stopped before it reads.
  if (stage != Stage::Read) {
    for (unsigned i : faulty) EXPECT_TRUE(problem.logs[i].threw) << "worker " << i;
  }
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
  Plan plan;
  plan.batches = -1;
  plan.faultStage = Stage::Process;
  plan.fault = Fault::Host;
  plan.faultyWorkers = {1};
  RecordingProblem problem(plan);
  Watchdog dog;
  EXPECT_THROW(Driver(&problem, 3), HostUnwind);
  EXPECT_TRUE(onCaller);
  ExpectStoppedRun(problem, 3);
}

TEST(DriverHostError, WithoutAHostTheErrorReachesTheCaller) {
  Plan plan;
  plan.faultStage = Stage::Read;
  plan.fault = Fault::Host;
  plan.faultyWorkers = {0};
  plan.batches = -1;
  RecordingProblem problem(plan);
  Watchdog dog;
  EXPECT_THROW(Driver(&problem, 2), QuorGoToCaller);
  ExpectStoppedRun(problem, 2);
}

class DriverWorkerException : public ::testing::TestWithParam<std::tuple<Fault, Stage>> {};

// With endless data, a task that never signalled would hang the run.
TEST_P(DriverWorkerException, ReachesTheCallerWithoutHangOrResume) {
  const auto [fault, stage] = GetParam();
  ResumeCounter resume;
  Plan plan;
  plan.batches = stage == Stage::Merge ? 20 : -1;
  plan.faultStage = stage;
  plan.fault = fault;
  plan.faultyWorkers = {1};
  RecordingProblem problem(plan);
  {
    Watchdog dog;
    if (fault == Fault::BadAlloc) {
      EXPECT_THROW(Driver(&problem, 4), std::bad_alloc);
    } else {
      try {
        Driver(&problem, 4);
        ADD_FAILURE() << "no exception";
      } catch (const std::length_error& error) {
        EXPECT_STREQ(error.what(), "vector<T> too long");
      }
    }
  }
  EXPECT_EQ(resume.calls, 0);
  ExpectStoppedRun(problem, 4);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DriverWorkerException,
    ::testing::Combine(::testing::Values(Fault::BadAlloc, Fault::LengthError),
                       ::testing::Values(Stage::Read, Stage::Process, Stage::Merge)));

TEST(DriverWorkerException, AfterTheHostsResumeWhenBothHappen) {
  ResumeCounter resume;
  Plan plan;
  plan.batches = -1;
  plan.faultStage = Stage::Process;
  plan.fault = Fault::BadAlloc;
  plan.faultyWorkers = {0, 1};
  RecordingProblem* self = nullptr;
  MeetInFirstProcess(plan, self);
  auto meet = plan.inFirstProcess;
  // Worker 0 raises the host's error instead, after the meeting.
  plan.inFirstProcess = [&self, meet](unsigned index) {
    meet(index);
    if (index == 0) {
      self->logs[0].threw = true;
      throw QuorGoToCaller();
    }
  };
  RecordingProblem problem(plan);
  self = &problem;
  Watchdog dog;
  EXPECT_THROW(Driver(&problem, 3), std::bad_alloc);
  EXPECT_EQ(resume.calls, 1);
  ExpectStoppedRun(problem, 3);
}

// Tasks 0 and 1 are reading endless data when CreateWorker fails for 2: they
// must be stopped, or the pool's destructor would wait for ever.
TEST(DriverWorkerException, CreateWorkerFailureStopsTheStartedTasks) {
  ResumeCounter resume;
  Plan plan;
  plan.batches = -1;
  plan.faultStage = Stage::Create;
  plan.fault = Fault::LengthError;
  plan.faultyWorkers = {2};
  RecordingProblem* self = nullptr;
  plan.beforeCreate = [&self](unsigned index) {
    if (index == 2 && !WaitFor([&] { return self->logs[0].reads > 0 && self->logs[1].reads > 0; }))
      self->Violation("tasks 0 and 1 did not start");
  };
  RecordingProblem problem(plan);
  self = &problem;
  {
    Watchdog dog;
    EXPECT_THROW(Driver(&problem, 4), std::length_error);
  }
  ExpectNoViolations(problem);
  EXPECT_EQ(resume.calls, 0);
  ASSERT_EQ(problem.Created(), 2);
  EXPECT_EQ(problem.Destroyed(), 2);
  for (const WorkerLog& log : problem.logs) EXPECT_EQ(log.merges, 1);
}

// ---------------------------------------------------------------- placement

// The CPU a task asked for, kept per thread by the observer and taken by the
// task's first call, so that a pool thread serving two tasks cannot mix them.
thread_local long lastRequestedCpu = -1;

long TakeRequestedCpu() { return std::exchange(lastRequestedCpu, -1); }

class PlacedProblem : public ProblemBase {
 public:
  struct Worker : WorkerBase {
    explicit Worker(long& cpu) : _cpu(cpu) {}
    bool ReadBatch() override { return false; }
    void ProcessBatch() override {}
    // Every task merges; no task reads if the data ended before it started.
    void MergeResult() override { _cpu = TakeRequestedCpu(); }
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
  std::map<std::thread::id, std::string> countCalls;
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
  vorelhost::ScopedPlacementObserver observer(
      [](vorelhost::ThreadHandle thread, unsigned cpu) {
        EXPECT_TRUE(thread == vorelhost::GetCurrentThread());
        lastRequestedCpu = cpu;
      });
  PlacedProblem problem;
  Driver(&problem, 8);
  EXPECT_EQ(std::vector<long>(problem.cpus.begin(), problem.cpus.end()), expected);
  std::size_t calls = 0;
  for (const auto& [thread, sequence] : countCalls) {
    for (std::size_t i = 0; i < sequence.size(); ++i) EXPECT_EQ(sequence[i], "PCL"[i % 3]);
    calls += sequence.size();
  }
  EXPECT_EQ(calls, 3u * 8u);
}

// Each row: the three factors of c, then the CPU asked for by indices 0..7
// (-1: no placement).
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
