#include "mpipass.h"

#include <mpi.h>
#include <sched.h>
#include <sys/stat.h>
#include <vorelhost/placement.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "errors.h"
#include "passstate.h"

namespace vorelstat {
namespace {

constexpr int kTag = 7;
// The largest piece one MPI call moves: its counts are ints.
constexpr std::size_t kPiece = std::size_t{1} << 30;

// Numbers and texts in order, as the messages between ranks hold them.
class Packer {
 public:
  void Number(std::uint64_t value) {
    const auto* bytes = reinterpret_cast<const std::byte*>(&value);
    _bytes.insert(_bytes.end(), bytes, bytes + sizeof value);
  }
  void Bytes(std::span<const std::byte> bytes) {
    Number(bytes.size());
    _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
  }
  void Text(const std::string& text) { Bytes(std::as_bytes(std::span(text))); }
  std::vector<std::byte> Take() { return std::move(_bytes); }

 private:
  std::vector<std::byte> _bytes;
};

class Unpacker {
 public:
  explicit Unpacker(std::span<const std::byte> bytes) : _rest(bytes) {}
  std::uint64_t Number() {
    std::uint64_t value = 0;
    std::memcpy(&value, Take(sizeof value).data(), sizeof value);
    return value;
  }
  std::span<const std::byte> Bytes() { return Take(Number()); }
  std::string Text() {
    const std::span<const std::byte> bytes = Bytes();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

 private:
  std::span<const std::byte> Take(std::uint64_t count) {
    if (count > _rest.size()) throw DataError("a message between the ranks was cut short");
    const std::span<const std::byte> taken = _rest.first(count);
    _rest = _rest.subspan(count);
    return taken;
  }
  std::span<const std::byte> _rest;
};

void PackTexts(Packer& p, const std::vector<TextColumn>& texts) {
  p.Number(texts.size());
  for (const TextColumn& text : texts) {
    p.Number(text.slot);
    p.Number(text.line);
    p.Text(text.text);
  }
}

std::vector<TextColumn> UnpackTexts(Unpacker& u) {
  std::vector<TextColumn> texts;
  for (std::uint64_t n = u.Number(); n > 0; --n) {
    TextColumn text;
    text.slot = static_cast<unsigned>(u.Number());
    text.line = u.Number();
    text.text = u.Text();
    texts.push_back(std::move(text));
  }
  return texts;
}

void Send(const std::vector<std::byte>& bytes, int to) {
  const std::uint64_t size = bytes.size();
  MPI_Send(&size, 1, MPI_UINT64_T, to, kTag, MPI_COMM_WORLD);
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const int count = static_cast<int>(std::min(kPiece, bytes.size() - at));
    MPI_Send(bytes.data() + at, count, MPI_BYTE, to, kTag, MPI_COMM_WORLD);
  }
}

std::vector<std::byte> Receive(int from) {
  std::uint64_t size = 0;
  MPI_Recv(&size, 1, MPI_UINT64_T, from, kTag, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
  std::vector<std::byte> bytes(size);
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const int count = static_cast<int>(std::min(kPiece, bytes.size() - at));
    MPI_Recv(bytes.data() + at, count, MPI_BYTE, from, kTag, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
  }
  return bytes;
}

// Rank 0's bytes, on every rank.
std::vector<std::byte> Broadcast(std::vector<std::byte> bytes) {
  std::uint64_t size = bytes.size();
  MPI_Bcast(&size, 1, MPI_UINT64_T, 0, MPI_COMM_WORLD);
  bytes.resize(size);
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const int count = static_cast<int>(std::min(kPiece, bytes.size() - at));
    MPI_Bcast(bytes.data() + at, count, MPI_BYTE, 0, MPI_COMM_WORLD);
  }
  return bytes;
}

// What the ranks [r, r + s) of a subtree made of their blocks.
struct Outcome {
  int code = kExitSuccess;  // else the exit code of the error
  // The error: before, the line number and after for a bad line, else before.
  std::string before, after;
  std::optional<std::uint64_t> line;
  std::uint64_t lines = 0;        // lines of the blocks read
  std::vector<TextColumn> texts;  // columns that turned out to hold text
  std::optional<PassState> state;
  std::uint64_t bytesMoved = 0;  // sent up the subtree to its first rank
  bool cutInsideQuotes = false;  // the error: a guessed cut fell inside quotes

  bool HasBlocks() const {
    return state && !state->inputs.empty()
           && state->inputs.back().endBlock > state->inputs.front().firstBlock;
  }
  std::string Message() const { return line ? before + std::to_string(*line) + after : before; }
};

Outcome Failure(int code, std::string message) {
  Outcome failed;
  failed.code = code;
  failed.before = std::move(message);
  return failed;
}

// The outcome of the exception in flight.
Outcome FailureInFlight() {
  try {
    throw;
  } catch (const CutInsideQuotes& e) {
    Outcome failed = Failure(kExitBadData, e.what());
    failed.cutInsideQuotes = true;
    return failed;
  } catch (const LineDataError& e) {
    Outcome failed = Failure(kExitBadData, e.before);
    failed.line = e.line;
    failed.after = e.after;
    return failed;
  } catch (const UsageError& e) {
    return Failure(kExitBadUsage, e.what());
  } catch (const DataError& e) {
    return Failure(kExitBadData, e.what());
  } catch (const std::bad_alloc&) {
    return Failure(kExitBadData, "out of memory");
  } catch (const std::exception& e) {
    return Failure(kExitBadData, e.what());
  }
}

std::vector<std::byte> Pack(const Outcome& o) {
  Packer p;
  p.Number(static_cast<std::uint64_t>(o.code));
  p.Text(o.before);
  p.Text(o.after);
  p.Number(o.line ? 1 : 0);
  p.Number(o.line.value_or(0));
  p.Number(o.lines);
  PackTexts(p, o.texts);
  p.Number(o.state ? 1 : 0);
  if (o.state) p.Bytes(SaveState(*o.state));
  p.Number(o.bytesMoved);
  p.Number(o.cutInsideQuotes ? 1 : 0);
  return p.Take();
}

Outcome Unpack(std::span<const std::byte> bytes, const std::string& what) {
  Unpacker u(bytes);
  Outcome o;
  o.code = static_cast<int>(u.Number());
  o.before = u.Text();
  o.after = u.Text();
  const bool hasLine = u.Number() != 0;
  const std::uint64_t line = u.Number();
  if (hasLine) o.line = line;
  o.lines = u.Number();
  o.texts = UnpackTexts(u);
  if (u.Number() != 0) o.state = LoadState(u.Bytes(), what);
  o.bytesMoved = u.Number();
  o.cutInsideQuotes = u.Number() != 0;
  return o;
}

// The outcome of `left` followed by `right`, the ranks after it: the error
// first in file order, else the parts' lines, text columns and states joined.
Outcome Join(Outcome left, Outcome right, const std::string& rightName) {
  left.bytesMoved += right.bytesMoved;
  if (left.code != kExitSuccess) return left;
  if (right.code != kExitSuccess) {
    if (right.line) *right.line += left.lines;
    right.bytesMoved = left.bytesMoved;
    return right;
  }
  for (TextColumn& text : right.texts) {
    const bool known = std::any_of(left.texts.begin(), left.texts.end(),
                                   [&](const TextColumn& t) { return t.slot == text.slot; });
    if (known) continue;
    text.line += left.lines;
    left.texts.push_back(std::move(text));
  }
  std::sort(left.texts.begin(), left.texts.end(),
            [](const TextColumn& a, const TextColumn& b) { return a.slot < b.slot; });
  left.lines += right.lines;
  // A rank whose share of the grid is empty adds nothing.
  if (!right.HasBlocks()) return left;
  if (!left.HasBlocks()) {
    left.state = std::move(right.state);
    return left;
  }
  try {
    MergeState(*left.state, std::move(*right.state), rightName);
  } catch (...) {
    Outcome failed = FailureInFlight();
    failed.bytesMoved = left.bytesMoved;
    return failed;
  }
  return left;
}

// What rank 0 tells every rank at the end of a round.
struct Decision {
  int code = kExitSuccess;  // else the run failed with this exit code
  std::string message;
  std::vector<TextColumn> texts;  // non-empty: read again without these columns
  bool cutOutsideQuotes = false;  // read again, cutting only outside quotes
};

std::vector<std::byte> Pack(const Decision& d) {
  Packer p;
  p.Number(static_cast<std::uint64_t>(d.code));
  p.Text(d.message);
  PackTexts(p, d.texts);
  p.Number(d.cutOutsideQuotes ? 1 : 0);
  return p.Take();
}

Decision UnpackDecision(std::span<const std::byte> bytes) {
  Unpacker u(bytes);
  Decision d;
  d.code = static_cast<int>(u.Number());
  d.message = u.Text();
  d.texts = UnpackTexts(u);
  d.cutOutsideQuotes = u.Number() != 0;
  return d;
}

// The decision of a round that failed, thrown on every rank.
struct AgreedFailure {
  int code;
  std::string message;
};

// Why input that can only be read from start to end cannot be shared out.
std::string NotCuttable(const std::string& path) {
  return path + ": under MPI the input must be a regular file, which each rank reads a part of "
         "at its own offset; save a pipe or standard input to a file, or decompress the file, "
         "first";
}

std::string RankName(int rank) { return "rank " + std::to_string(rank); }

// What a rank sees of the file: the ranks must see the same.
std::string Fingerprint(const ChunkReader& reader, const RowLayout& layout) {
  Packer p;
  p.Number(reader.FileSize().value_or(0));
  p.Number(reader.DataStart());
  p.Number(static_cast<unsigned char>(layout.delimiter));
  for (const std::string& name : layout.names)
    p.Text(name);
  for (std::size_t field : layout.valueFields)
    p.Number(field);
  for (const auto& field : {layout.weightField, layout.regWeightField, layout.groupField})
    p.Number(field ? *field + 1 : 0);
  const std::vector<std::byte> bytes = p.Take();
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Rank r's run [first, end) of the grid's n blocks: the K runs in rank order
// tile the grid, their sizes differing by one at most.
std::pair<std::uint64_t, std::uint64_t> ShareOfBlocks(std::uint64_t n, int rank, int ranks) {
  const auto r = static_cast<std::uint64_t>(rank), k = static_cast<std::uint64_t>(ranks);
  // floor(r n / k) without the product overflowing.
  const auto cut = [&](std::uint64_t at) { return n / k * at + n % k * at / k; };
  return {cut(r), cut(r + 1)};
}

// Gives this process its own share of the CPUs it may use when other ranks
// on its machine may use the same ones (a launcher that binds nothing).
void ShareCpusWithLocalRanks(bool placement) {
  MPI_Comm local;
  MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &local);
  int localRank = 0, localSize = 1;
  MPI_Comm_rank(local, &localRank);
  MPI_Comm_size(local, &localSize);
  cpu_set_t own;
  CPU_ZERO(&own);
  sched_getaffinity(0, sizeof own, &own);
  std::vector<cpu_set_t> sets(static_cast<std::size_t>(localSize));
  MPI_Allgather(&own, sizeof own, MPI_BYTE, sets.data(), sizeof own, MPI_BYTE, local);
  MPI_Comm_free(&local);
  unsigned part = 0, parts = 0;
  for (int r = 0; r < localSize; ++r) {
    if (!CPU_EQUAL(&sets[static_cast<std::size_t>(r)], &own)) continue;
    if (r < localRank) ++part;
    ++parts;
  }
  vorelhost::SetPlacementShare({placement, part, parts});
}

class MpiRun {
 public:
  MpiRun(const Options& options, const MpiSession& session)
      : _o(options), _rank(session.Rank()), _size(session.Size()) {}

  // The pass of one round on this rank's blocks; the agreed text columns when
  // the file must be read again, else nothing (rank 0 then holds the state).
  PassResult RunRound(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                      const PassOptions& passOptions) {
    if (!reader.FileSize()) throw UsageError(NotCuttable(_o.path));
    const std::string fingerprint = Fingerprint(reader, layout);
    PassResult next;
    next.textColumns =
        Round(&fingerprint, [&] { return Pass(reader, layout, rules, passOptions); });
    return next;
  }

  // For a rank that failed outside the pass: takes its error into the round
  // the others are in. Throws AgreedFailure.
  void FailRound(Outcome failure) {
    Round(nullptr, [&] { return std::move(failure); });
  }

  bool Finished() const { return _finished; }
  PassState TakeState() { return std::move(*_state); }

 private:
  Outcome Pass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
               PassOptions passOptions) {
    const std::uint64_t dataBytes = *reader.FileSize() - reader.DataStart();
    const std::uint64_t blocks =
        dataBytes / passOptions.blockBytes + (dataBytes % passOptions.blockBytes != 0 ? 1 : 0);
    std::tie(passOptions.firstBlock, passOptions.endBlock) = ShareOfBlocks(blocks, _rank, _size);
    passOptions.keepForest = true;
    // The ranks before add their lines when the outcomes join.
    passOptions.linesFromFileStart = false;
    Outcome mine;
    try {
      PassResult pass = RunPass(reader, layout, rules, passOptions);
      mine.lines = pass.lines;
      mine.texts = std::move(pass.textColumns);
      mine.state = StateOfPass(_o.path, layout, rules, passOptions, ReportOptionsOf(_o), _o.exclude,
                               {}, pass);
    } catch (...) {
      mine = FailureInFlight();
    }
    return mine;
  }

  // One round: the fingerprints (a rank that failed has none), the pass, the
  // outcomes up the tree and the decision down. Returns the text columns to
  // leave out in the next round; throws AgreedFailure.
  template <class Work>
  std::vector<TextColumn> Round(const std::string* fingerprint, Work&& work) {
    std::string seen = fingerprint != nullptr ? *fingerprint : std::string();
    const std::vector<std::byte> root = Broadcast(
        std::vector<std::byte>(reinterpret_cast<const std::byte*>(seen.data()),
                               reinterpret_cast<const std::byte*>(seen.data()) + seen.size()));
    Outcome mine;
    if (fingerprint == nullptr) {
      mine = work();
    } else if (root.empty() && _rank != 0) {
      // Rank 0 failed already; its error is the one reported.
    } else if (std::string(reinterpret_cast<const char*>(root.data()), root.size()) != seen) {
      mine = Failure(kExitBadUsage, _o.path + " on " + RankName(_rank)
                                        + " is not what rank 0 reads: its size, header or "
                                          "columns differ; every rank must read the same file");
    } else {
      mine = work();
    }
    if (_o.exchangeTiming) MPI_Barrier(MPI_COMM_WORLD);
    const auto start = std::chrono::steady_clock::now();
    std::optional<Outcome> all = Gather(std::move(mine));
    Decision decision;
    if (all) decision = Decide(*all);
    decision = UnpackDecision(Broadcast(_rank == 0 ? Pack(decision) : std::vector<std::byte>()));
    if (_o.exchangeTiming && all && decision.code == kExitSuccess && decision.texts.empty()
        && !decision.cutOutsideQuotes) {
      const std::chrono::duration<double, std::milli> took =
          std::chrono::steady_clock::now() - start;
      std::cerr << "vorelstat: state exchange: " << all->bytesMoved << " bytes from " << _size - 1
                << " ranks in " << took.count() << " ms\n";
    }
    if (decision.code != kExitSuccess) throw AgreedFailure{decision.code, decision.message};
    // Every rank reads again, as RunPasses does after a cut inside quotes.
    if (decision.cutOutsideQuotes) throw CutInsideQuotes(_o.path);
    if (decision.texts.empty()) _finished = true;
    if (all) _state = std::move(all->state);
    return decision.texts;
  }

  // The outcomes up the tree; rank 0 gets them all, the others nothing.
  std::optional<Outcome> Gather(Outcome mine) {
    for (int step = 1; step < _size; step *= 2) {
      if (_rank % (2 * step) != 0) {
        std::vector<std::byte> bytes;
        try {
          bytes = Pack(mine);
        } catch (...) {
          bytes = Pack(FailureInFlight());
        }
        Send(bytes, _rank - step);
        return std::nullopt;
      }
      const int child = _rank + step;
      if (child >= _size) continue;
      const std::vector<std::byte> bytes = Receive(child);
      Outcome theirs;
      try {
        theirs = Unpack(bytes, "the state from " + RankName(child));
      } catch (...) {
        theirs = FailureInFlight();
      }
      theirs.bytesMoved += bytes.size();
      mine = Join(std::move(mine), std::move(theirs), "the part of " + RankName(child));
    }
    return mine;
  }

  static Decision Decide(const Outcome& all) {
    Decision decision;
    decision.code = all.code;
    if (all.cutInsideQuotes) {
      // As in one process: the first error in file order was a wrong guess.
      decision.code = kExitSuccess;
      decision.cutOutsideQuotes = true;
    } else if (all.code != kExitSuccess) {
      decision.message = all.Message();
    } else {
      decision.texts = all.texts;
    }
    return decision;
  }

  const Options& _o;
  int _rank, _size;
  bool _finished = false;
  std::optional<PassState> _state;
};

[[noreturn]] void Throw(const AgreedFailure& failure) {
  if (failure.code == kExitBadUsage) throw UsageError(failure.message);
  throw DataError(failure.message);
}

// Refuses what a run spread over ranks cannot do.
void CheckMpiOptions(const Options& o) {
  struct stat status {};
  if (o.path == "-" || (::stat(o.path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)))
    throw UsageError(NotCuttable(o.path));
  if (!o.blocks.empty())
    throw UsageError("--blocks reads one part of the grid; under MPI the ranks share the grid");
  if (o.finishOrder) throw UsageError("--finish-order leaves the block grid that MPI runs share");
}

}  // namespace

bool UnderMpiLauncher() {
  for (const char* name : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK"})
    if (std::getenv(name) != nullptr) return true;
  return false;
}

MpiSession::MpiSession(int* argc, char*** argv) {
  int provided = 0;
  MPI_Init_thread(argc, argv, MPI_THREAD_FUNNELED, &provided);
  MPI_Comm_rank(MPI_COMM_WORLD, &_rank);
  MPI_Comm_size(MPI_COMM_WORLD, &_size);
  if (_rank != 0) {
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
  }
}

MpiSession::~MpiSession() { MPI_Finalize(); }

void DefineMpiOptions(CLI::App& app, Options& o) {
  app.add_flag("--exchange-timing", o.exchangeTiming,
               "Under MPI: write the bytes and the time of the states' exchange to standard "
               "error (the ranks wait for one another first)");
}

void RunToolMpi(const Options& options, const MpiSession& session, std::FILE* out) {
  Options o = options;
  MpiRun run(o, session);
  ShareCpusWithLocalRanks(!o.noPlacement);
  if (o.threads == 0) o.threads = static_cast<int>(vorelhost::CpusInShare());
  ToolRun tool;
  try {
    CheckMpiOptions(o);
    tool = RunPasses(o, false,
                     [&run](ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                            const PassOptions& passOptions) {
                       return run.RunRound(reader, layout, rules, passOptions);
                     });
  } catch (const AgreedFailure& failure) {
    Throw(failure);
  } catch (...) {
    if (run.Finished()) throw;
    try {
      run.FailRound(FailureInFlight());
    } catch (const AgreedFailure& failure) {
      Throw(failure);
    }
  }
  if (session.Rank() != 0) return;
  PassState state = run.TakeState();
  state.skipped = tool.skipped;
  WriteStateReport(std::move(state), o.format, o.sections, o.saveState, out);
}

}  // namespace vorelstat
