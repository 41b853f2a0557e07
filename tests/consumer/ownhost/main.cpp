// Runs passes of vorel on the host of host.cpp and checks that its pieces did
// the work: its pool ran the tasks, its answers set the thread count, the
// budget and the placement, its counter carried a worker's exception, its
// resume was called for the host's error, and its assertion reported a
// breached precondition.
#include <vorel/databatch.h>
#include <vorel/driver.h>
#include <vorelhost/assertion.h>
#include <vorelhost/hostruntime.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "host.h"

namespace {

// Sums 1 to kRows, one number a batch; a worker may be told to fail in its
// first ProcessBatch by throwing what `fail` throws.
constexpr int kRows = 1000;

struct SumProblem : vorel::ProblemBase {
  struct Worker : vorel::WorkerBase {
    explicit Worker(SumProblem& p) : problem(p) {}
    bool ReadBatch() override {
      row = problem.next++;
      return row <= kRows;
    }
    void ProcessBatch() override {
      if (problem.fail) problem.fail();
      sum += row;
    }
    void MergeResult() override { problem.total += sum; }
    SumProblem& problem;
    int row = 0;
    double sum = 0.0;
  };
  vorel::WorkerBase* CreateWorker() override {
    budget = _cacheBytes;
    return new Worker(*this);
  }
  int next = 1;
  double total = 0.0;
  int budget = 0;
  void (*fail)() = nullptr;
};

int failures = 0;
void Check(bool ok, const std::string& what) {
  if (ok) return;
  std::printf("FAILED: %s\n", what.c_str());
  ++failures;
}

struct Refused {
  std::string expression;
};
void Refuse(const char* expression, const char*, int) { throw Refused{expression}; }

}  // namespace

int main() {
  SumProblem plain;
  vorel::Driver(&plain, 0);  // the host's count: 3 threads
  Check(plain.total == kRows * (kRows + 1) / 2, "the sum of a pass");
  Check(ownhost::TasksRun() == 3, "three tasks on the host's pool");
  Check(plain.budget == 64 * 1024, "the host's budget");
  // Two CPUs: threads 0 and 1 are placed, on CPUs 0 and 1, the third is not.
  std::vector<unsigned> placed = ownhost::Placements();
  std::sort(placed.begin(), placed.end());
  Check(placed == std::vector<unsigned>{0, 1}, "placement by the host's CPU count");

  SumProblem stopped;
  stopped.fail = [] { throw vorelhost::QuorGoToCaller(); };
  vorel::Driver(&stopped, 2);
  Check(ownhost::Resumes() == 1, "one resume after the host's error");

  SumProblem failing;
  failing.fail = [] { throw std::runtime_error("worker failed"); };
  try {
    vorel::Driver(&failing, 2);
    Check(false, "a worker's exception reaches the caller");
  } catch (const std::runtime_error& e) {
    Check(std::string(e.what()) == "worker failed", "the worker's own exception");
  }
  Check(ownhost::Resumes() == 1, "no resume for a worker's exception");

  vorelhost::SetAssertHandler(&Refuse);
  try {
    vorel::DataBatch empty(0, 1, nullptr, nullptr, nullptr);
    Check(false, "a batch of no columns is refused");
  } catch (const Refused& refused) {
    Check(refused.expression == "0 < nColumns", "the assertion's text");
  }

  std::puts(failures == 0 ? "own host ok" : "own host FAILED");
  return failures == 0 ? 0 : 1;
}
