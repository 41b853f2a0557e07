// The platform layer on this machine: host answers and hooks, and thread
// placement. The pool is proven through Driver in the Driver suites.
#include <pthread.h>
#include <sched.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"

namespace vorelhost {
namespace {

TEST(HostRuntime, MachineDefaultsAndScopedHooks) {
  const int defaultThreads = HostThreadCount(), defaultCores = hostCoresPerCpuCount();
  EXPECT_GT(HostCacheKilobytes(), 0);
  EXPECT_THROW(HostResumeCaller(), QuorGoToCaller) << "without a host the error goes on";
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

std::vector<unsigned> CpusOf(const cpu_set_t& set) {
  std::vector<unsigned> cpus;
  for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  return cpus;
}

std::vector<unsigned> OwnCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (pthread_getaffinity_np(pthread_self(), sizeof set, &set) != 0) return {};
  return CpusOf(set);
}

// Asks for cpu until the thread is seen running there: the scheduler may move
// it again at any moment, so one look could miss it.
bool LandsOn(unsigned cpu) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (!SetThreadIdealProcessor(GetCurrentThread(), cpu)) return false;
    if (sched_getcpu() == static_cast<int>(cpu)) return true;
  }
  return false;
}

// On threads of their own, so that the test's thread keeps its set of CPUs.
TEST(PlacementThreaded, MovesTheThreadWithoutBindingIt) {
  std::vector<std::pair<unsigned, bool>> seen;  // (cpu, asked by the calling thread)
  ScopedPlacementObserver observer([&seen](ThreadHandle thread, unsigned cpu) {
    seen.emplace_back(cpu, thread == GetCurrentThread());
  });
  std::vector<unsigned> cpus;
  std::thread([&] {
    cpus = OwnCpus();
    ASSERT_FALSE(cpus.empty());
    for (unsigned cpu : cpus) {
      EXPECT_TRUE(LandsOn(cpu)) << "cpu " << cpu;
      EXPECT_EQ(OwnCpus(), cpus) << "a hint binds nothing";
    }
    EXPECT_FALSE(SetThreadIdealProcessor(GetCurrentThread(), CPU_SETSIZE));
    EXPECT_EQ(OwnCpus(), cpus);
  }).join();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back(), std::make_pair(unsigned{CPU_SETSIZE}, true));
  for (const auto& [cpu, own] : seen)
    EXPECT_TRUE(own && (cpu == CPU_SETSIZE || cpu <= cpus.back()));
}

TEST(PlacementThreaded, RefusesACpuOutsideTheThreadsSet) {
  std::thread([] {
    const std::vector<unsigned> cpus = OwnCpus();
    ASSERT_FALSE(cpus.empty());
    if (cpus.size() < 2) GTEST_SKIP() << "needs two CPUs";
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(cpus.front(), &first);
    ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof first, &first), 0);
    EXPECT_FALSE(SetThreadIdealProcessor(GetCurrentThread(), cpus.back()))
        << "a host's narrowing of the thread stands";
    EXPECT_EQ(OwnCpus(), std::vector<unsigned>{cpus.front()});
  }).join();
}

}  // namespace
}  // namespace vorelhost
