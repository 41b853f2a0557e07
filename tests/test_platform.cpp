// The platform layer on this machine: host answers and hooks, and thread
// placement. The pool is proven through Driver in the Driver suites.
#include <pthread.h>
#include <sched.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>

#include <algorithm>
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

// The CPUs the calling thread may run on.
std::vector<unsigned> OwnCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<unsigned> cpus;
  if (pthread_getaffinity_np(pthread_self(), sizeof set, &set) != 0) return cpus;
  for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  return cpus;
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
  // With the whole machine allowed, a request is for the CPU it names.
  if (OwnCpus().size() != static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_CONF)))
    GTEST_SKIP() << "needs every CPU of the machine";
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

// Where requests for every place on the machine land, under `share`: the
// CPUs the thread was seen on right after each request.
std::vector<unsigned> LandingsUnder(PlacementShare share) {
  const PlacementShare before = SetPlacementShare(share);
  std::vector<unsigned> seen;
  const long machine = sysconf(_SC_NPROCESSORS_CONF);
  for (unsigned cpu = 0; cpu < static_cast<unsigned>(machine); ++cpu) {
    if (SetThreadIdealProcessor(GetCurrentThread(), cpu))
      seen.push_back(static_cast<unsigned>(sched_getcpu()));
  }
  SetPlacementShare(before);
  return seen;
}

TEST(PlacementThreaded, StaysWithinANarrowedSetAndSpreadsOverIt) {
  std::thread([] {
    const std::vector<unsigned> cpus = OwnCpus();
    ASSERT_FALSE(cpus.empty());
    if (cpus.size() < 2) GTEST_SKIP() << "needs two CPUs";
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(cpus.front(), &first);
    ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof first, &first), 0);
    const std::vector<unsigned> landed = LandingsUnder({});
    EXPECT_EQ(landed.size(), static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_CONF)))
        << "each place on the machine maps into the set";
    for (unsigned cpu : landed)
      EXPECT_EQ(cpu, cpus.front());
    EXPECT_EQ(OwnCpus(), std::vector<unsigned>{cpus.front()}) << "a host's narrowing stands";
  }).join();
}

// Two processes that share one set take a half each; with placement off every
// request is refused. A thread seen elsewhere than it was put was moved by the
// scheduler in between, so each half is asked for a few times.
TEST(PlacementThreaded, SharesSplitTheSetAndPlacementTurnsOff) {
  std::thread([] {
    const std::vector<unsigned> cpus = OwnCpus();
    if (cpus.size() < 2) GTEST_SKIP() << "needs two CPUs";
    const std::size_t half = cpus.size() / 2;
    for (unsigned part : {0u, 1u}) {
      const std::vector<unsigned> slice(cpus.begin() + (part == 0 ? 0 : half),
                                        part == 0 ? cpus.begin() + half : cpus.end());
      bool within = false;
      for (int attempt = 0; attempt < 20 && !within; ++attempt) {
        const std::vector<unsigned> landed = LandingsUnder({true, part, 2});
        within = !landed.empty() && std::all_of(landed.begin(), landed.end(), [&](unsigned c) {
          return std::find(slice.begin(), slice.end(), c) != slice.end();
        });
      }
      EXPECT_TRUE(within) << "part " << part;
      EXPECT_EQ(OwnCpus(), cpus);
    }
    const PlacementShare before = SetPlacementShare({true, 1, 2});
    EXPECT_EQ(CpusInShare(), cpus.size() - half);
    SetPlacementShare({false, 0, 1});
    EXPECT_FALSE(SetThreadIdealProcessor(GetCurrentThread(), 0));
    SetPlacementShare(before);
    EXPECT_TRUE(SetThreadIdealProcessor(GetCurrentThread(), 0));
  }).join();
}

}  // namespace
}  // namespace vorelhost
