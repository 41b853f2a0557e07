// The platform layer on this machine: host answers and hooks, what the pool
// does with tasks it cannot run, thread stacks, and thread placement.
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>
#include <vorelhost/tpthreadpool.h>

#include <sched.h>
#include <unistd.h>

#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"

namespace vorelhost {
namespace {

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

// Escaped exceptions, side-by-side running and teardown of the pool are
// proven through Driver in the Driver suites.
TEST(ThreadPoolThreaded, RefusedTasksAreDestroyedAtOnce) {
  struct CountingTask : tpTaskObject {
    explicit CountingTask(int& destroyed) : tpTaskObject(nullptr), _destroyed(destroyed) {}
    ~CountingTask() override { ++_destroyed; }
    int Run(void*) override { return 1; }
    int& _destroyed;
  };
  int destroyed = 0;
  tpThreadPool pool(0, 0);
  pool.init();
  pool.startAll();
  EXPECT_FALSE(pool.invoke(new CountingTask(destroyed), nullptr, tpScopePool));
  EXPECT_EQ(destroyed, 1);
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
