// The platform layer on this machine: host answers and hooks, and thread
// placement. The pool is proven through Driver in the Driver suites.
#include <sched.h>
#include <unistd.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"

namespace vorelhost {
namespace {

TEST(HostRuntime, MachineDefaultsAndScopedHooks) {
  const unsigned hardware = std::thread::hardware_concurrency();
  const int defaultThreads = HostThreadCount(), defaultCores = hostCoresPerCpuCount();
  EXPECT_EQ(defaultThreads, hardware == 0 ? 1 : static_cast<int>(hardware));
  EXPECT_GT(HostCacheKilobytes(), 0);
  // The factors round up on machines whose cores differ, never by a factor 2.
  const long product = hostPhysicalCpuCount() * defaultCores * hostLogicalPerCoreCount();
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  EXPECT_GE(product, online);
  EXPECT_LT(product, 2 * online);
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
    // The process's CPUs decide, not the thread's narrowed mask; a refusal changes nothing.
    for (unsigned cpu : {allowed.back(), allowed.front(), unsigned{CPU_SETSIZE}}) {
      EXPECT_EQ(SetThreadIdealProcessor(GetCurrentThread(), cpu), cpu != CPU_SETSIZE);
      EXPECT_EQ(AllowedCpus(0), std::vector<unsigned>{cpu == CPU_SETSIZE ? allowed.front() : cpu});
    }
  }).join();
  const std::vector<std::pair<unsigned, bool>> expected{
      {allowed.back(), true}, {allowed.front(), true}, {CPU_SETSIZE, true}};
  EXPECT_EQ(seen, expected);
}

}  // namespace
}  // namespace vorelhost
