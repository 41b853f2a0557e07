// vorelstat under an MPI launcher (mpirun -n K): one pass spread over K
// processes, with the report of one process to the last bit.
//
// The grid of the file's blocks (statpass.h) is cut into K contiguous runs,
// one per rank, so that each rank's part is what --blocks would read and its
// state merges as parts' states do (passstate.h). Each rank reads its part
// with the threads of its machine. The states travel up a fixed binary tree to
// rank 0: at step s (1, 2, 4, ...) rank r with r mod 2s = s sends its state,
// holding ranks [r, r + s), to rank r - s, which merges it after its own. The
// tree has the shape of the block tree, and the merge of parts yields the
// block tree of one pass, so the report does not depend on K. Rank 0 prints
// the report; the other ranks print nothing.
//
// A run goes in rounds, each the same three steps on every rank: rank 0
// tells the others what it sees of the file (header, columns, size) and a rank
// that sees something else fails; each rank runs its pass; the outcomes go up
// the tree and rank 0 sends the decision down: done, again without the
// columns that turned out to hold text, again cutting only outside quotes (a
// guessed cut fell inside a quoted field), or failed. A rank that fails anywhere
// before the decision sends its error up instead of a state, so no rank waits
// for one that has given up; the error of the first rank in file order wins,
// and rank 0 prints it, with the line numbered in the whole file. A rank that
// dies is caught by the launcher, which ends the job.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>

#include "tool.h"

namespace vorelstat {

// Whether an MPI launcher started this process.
bool UnderMpiLauncher();

// MPI from construction to destruction. The ranks other than 0 write nothing
// to standard output or standard error.
class MpiSession {
 public:
  MpiSession(int* argc, char*** argv);
  ~MpiSession();
  MpiSession(const MpiSession&) = delete;
  MpiSession& operator=(const MpiSession&) = delete;

  int Rank() const { return _rank; }
  int Size() const { return _size; }

 private:
  int _rank = 0;
  int _size = 1;
};

void DefineMpiOptions(CLI::App& app, Options& options);

// The run of RunTool on every rank: rank 0 writes the report to `out`. Throws
// UsageError or DataError on every rank when any rank failed.
void RunToolMpi(const Options& options, const MpiSession& session, std::FILE* out);

}  // namespace vorelstat
