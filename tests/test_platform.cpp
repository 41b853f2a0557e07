// The platform layer: host answers and hooks, the completion counter, the
// pool, and thread placement on this machine.
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>
#include <vorelhost/tpcompletetask.h>
#include <vorelhost/tpthreadpool.h>

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"

namespace vorelhost {
namespace {

using namespace std::chrono_literals;

bool WaitFor(const std::function<bool()>& ready) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(HostRuntime, MachineDefaults) {
  const unsigned hardware = std::thread::hardware_concurrency();
  EXPECT_EQ(HostThreadCount(), hardware == 0 ? 1 : static_cast<int>(hardware));
  EXPECT_GT(HostCacheKilobytes(), 0);
  const int sockets = hostPhysicalCpuCount();
  const int cores = hostCoresPerCpuCount();
  const int threads = hostLogicalPerCoreCount();
  ASSERT_GE(sockets, 1);
  ASSERT_GE(cores, 1);
  ASSERT_GE(threads, 1);
  // The factors round up on machines whose cores differ, never by a factor 2.
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  EXPECT_GE(sockets * cores * threads, online);
  EXPECT_LT(sockets * cores * threads, 2 * online);
}

TEST(HostRuntime, HooksReplaceAnswersForTheirScope) {
  const int defaultThreads = HostThreadCount();
  const int defaultCores = hostCoresPerCpuCount();
  {
    HostHooks hooks;
    hooks.threadCount = [] { return 5; };
    hooks.cacheKilobytes = [] { return -3; };  // a budget is never negative
    ScopedHostHooks outer(hooks);
    EXPECT_EQ(HostThreadCount(), 5);
    EXPECT_EQ(HostCacheKilobytes(), 0);
    EXPECT_EQ(hostCoresPerCpuCount(), defaultCores) << "an empty hook keeps the default";
    {
      HostHooks inner;
      inner.coresPerCpuCount = [] { return 12; };
      ScopedHostHooks scope(inner);
      EXPECT_EQ(hostCoresPerCpuCount(), 12);
      EXPECT_EQ(HostThreadCount(), defaultThreads) << "a set of hooks replaces the whole set";
    }
    EXPECT_EQ(HostThreadCount(), 5);
  }
  EXPECT_EQ(HostThreadCount(), defaultThreads);
}

TEST(HostRuntime, ResumeCallerThrowsUnlessTheHostHandlesIt) {
  EXPECT_THROW(HostResumeCaller(), QuorGoToCaller);
  int calls = 0;
  HostHooks hooks;
  hooks.resumeCaller = [&calls] { ++calls; };
  ScopedHostHooks scope(hooks);
  HostResumeCaller();
  EXPECT_EQ(calls, 1);
}

TEST(CompleteTaskThreaded, WaitsForEveryTaskAndKeepsTheFirstFailure) {
  tpCompleteTask counter(0);
  EXPECT_TRUE(counter.waitAll()) << "nothing to wait for";
  EXPECT_FALSE(counter.set(-1));
  ASSERT_TRUE(counter.set(4));
  std::vector<std::thread> threads;
  threads.emplace_back([&] { counter.TaskDone(); });
  threads.emplace_back([&] { counter.TaskDone(); });
  threads.emplace_back([&] {
    counter.TaskFailed(std::make_exception_ptr(std::runtime_error("first")));
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(counter.stopRequested());
  counter.TaskFailed(std::make_exception_ptr(std::runtime_error("second")));
  EXPECT_FALSE(counter.waitAll());
  try {
    std::rethrow_exception(counter.firstFailure());
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "first");
  }
}

struct Probes {
  std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> started{0}, met{0}, destroyed{0}, destroyedOnCaller{0};
};

// Waits in Run until `meet` tasks have started; throws if given an argument.
struct ProbeTask : tpTaskObject {
  ProbeTask(Probes& probes, int meet) : tpTaskObject(nullptr), _probes(probes), _meet(meet) {}
  ~ProbeTask() override {
    if (std::this_thread::get_id() == _probes.caller) ++_probes.destroyedOnCaller;
    ++_probes.destroyed;
  }
  int Run(void* arg) override {
    ++_probes.started;
    if (arg != nullptr) throw std::runtime_error("from Run");
    if (WaitFor([this] { return _probes.started.load() >= _meet; })) ++_probes.met;
    return 1;
  }
  Probes& _probes;
  int _meet;
};

TEST(ThreadPoolThreaded, RunsItsTasksSideBySideAndDestroysThemBeforeItEnds) {
  Probes probes;
  constexpr int n = 5;
  {
    tpThreadPool pool(n, 0);
    EXPECT_TRUE(pool.init());
    // Handed over before the start: it waits for a thread.
    EXPECT_TRUE(pool.invoke(new ProbeTask(probes, n), nullptr, tpScopePool));
    EXPECT_TRUE(pool.startAll());
    EXPECT_FALSE(pool.startAll());
    for (int i = 1; i < n; ++i) pool.invoke(new ProbeTask(probes, n), nullptr, tpScopePool);
  }
  // Each task waited for all n to start, which only n threads at once allow.
  EXPECT_EQ(probes.met.load(), n);
  EXPECT_EQ(probes.destroyed.load(), n);
  EXPECT_EQ(probes.destroyedOnCaller.load(), 0);
}

TEST(ThreadPoolThreaded, ReportsAnEscapedExceptionToTheTasksCounter) {
  tpCompleteTask counter(0);
  counter.set(2);
  Probes probes;
  {
    tpThreadPool pool(2, 0);
    pool.init();
    pool.startAll();
    int marker = 0;  // a non-null argument makes the task throw
    for (void* arg : {static_cast<void*>(&marker), static_cast<void*>(nullptr)}) {
      auto* task = new ProbeTask(probes, 1);
      task->setCompleteTask(&counter);
      pool.invoke(task, arg, tpScopePool);
    }
    counter.TaskDone();  // on behalf of the task that ends normally
    EXPECT_FALSE(counter.waitAll());
  }
  EXPECT_TRUE(counter.stopRequested());
  EXPECT_THROW(std::rethrow_exception(counter.firstFailure()), std::runtime_error);
  EXPECT_EQ(probes.met.load(), 1);
  EXPECT_EQ(probes.destroyed.load(), 2);
}

TEST(ThreadPoolThreaded, RefusedTasksAreDestroyedAtOnce) {
  Probes probes;
  tpThreadPool pool(0, 0);
  pool.init();
  pool.startAll();
  EXPECT_FALSE(pool.invoke(new ProbeTask(probes, 0), nullptr, tpScopePool));
  EXPECT_EQ(probes.destroyed.load(), 1);
  EXPECT_EQ(probes.started.load(), 0);
}

TEST(ThreadPoolThreaded, ThreadsGetTheStackAskedFor) {
  struct StackTask : tpTaskObject {
    explicit StackTask(std::size_t& bytes) : tpTaskObject(nullptr), _bytes(bytes) {}
    int Run(void*) override {
      pthread_attr_t attr;
      pthread_getattr_np(pthread_self(), &attr);
      pthread_attr_getstacksize(&attr, &_bytes);
      pthread_attr_destroy(&attr);
      return 1;
    }
    std::size_t& _bytes;
  };
  std::size_t bytes = 0;
  {
    // Above the usual 8 MB default; the system may hand out a larger cached stack.
    tpThreadPool pool(1, 16 * 1024);
    pool.init();
    pool.startAll();
    pool.invoke(new StackTask(bytes), nullptr, tpScopePool);
  }
  EXPECT_GE(bytes, 16u * 1024 * 1024);
}

std::vector<unsigned> AllowedCpus(pid_t who) {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<unsigned> cpus;
  if (sched_getaffinity(who, sizeof set, &set) != 0) return cpus;
  for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  return cpus;
}

// On a thread of its own, so that the test's thread keeps its mask.
TEST(PlacementThreaded, BindsToAnAllowedCpuAndRefusesOthers) {
  const std::vector<unsigned> allowed = AllowedCpus(getpid());
  ASSERT_FALSE(allowed.empty());
  std::vector<std::pair<unsigned, bool>> seen;  // (cpu, asked by the calling thread)
  ScopedPlacementObserver observer([&seen](ThreadHandle thread, unsigned cpu) {
    seen.emplace_back(cpu, thread == GetCurrentThread());
  });
  std::thread([&] {
    const unsigned last = allowed.back();
    EXPECT_TRUE(SetThreadIdealProcessor(GetCurrentThread(), last));
    EXPECT_EQ(AllowedCpus(0), std::vector<unsigned>{last});
    // The process's CPUs decide, not the thread's narrowed mask.
    EXPECT_TRUE(SetThreadIdealProcessor(GetCurrentThread(), allowed.front()));
    EXPECT_EQ(AllowedCpus(0), std::vector<unsigned>{allowed.front()});
    EXPECT_FALSE(SetThreadIdealProcessor(GetCurrentThread(), CPU_SETSIZE));
    EXPECT_EQ(AllowedCpus(0), std::vector<unsigned>{allowed.front()}) << "a refusal changes nothing";
  }).join();
  const std::vector<std::pair<unsigned, bool>> expected{
      {allowed.back(), true}, {allowed.front(), true}, {CPU_SETSIZE, true}};
  EXPECT_EQ(seen, expected);
}

}  // namespace
}  // namespace vorelhost
