// The report's bytes whatever the threads, the read size, the batch size, the
// way of reading and the timing; parts cut on the grid and merged through
// saved states, and parts missing or given twice named. (Damaged and
// mismatched states: the end-to-end state suite, and the library's.)
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "chunkreader.h"
#include "errors.h"
#include "passstate.h"
#include "report.h"
#include "rowparser.h"
#include "statpass.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

using testing::MessageOf;
using testing::TempFile;

constexpr std::uint64_t kBlock = 4096;

// A group label of every kind: whole numbers (1, 1.0 and +1 being one group),
// another number and texts; "late" first shows past the first third of the
// rows and "z" in the last quarter, so that the order of first appearance
// differs from the sorted order and is decided in later blocks.
std::string GroupCell(std::mt19937_64& random, int row, int rows) {
  static const char* const kEarly[] = {"north", "1", "2.5", "1.0", "-3", "+1", "south"};
  const int pick = static_cast<int>(random() % 100);
  if (row > rows / 3 && pick < 6) return "late";
  if (row > 3 * rows / 4 && pick < 9) return "z";
  return kEarly[pick % 7];
}

// Values where the order of the sums shows in the last bits: a column far
// from zero with a small spread, one of mixed magnitudes, one tiny; weights
// of mixed size (their squares count with analytic weights), group labels of
// every kind and missing cells.
std::string MakeText(unsigned seed, int rows) {
  std::mt19937_64 random(seed);
  std::normal_distribution<double> normal;
  std::uniform_int_distribution<int> pick(0, 99);
  std::string text = "big,mixed,tiny,w,g\n";
  char line[160];
  for (int i = 0; i < rows; ++i) {
    const double big = 3.0e9 + 1e-3 * normal(random);
    const double mixed = normal(random) * (pick(random) < 10 ? 1e8 : 1e-2);
    const double tiny = 1e-9 * normal(random) + 1e-7;
    const double weight = 0.1 * (1 + pick(random) % 37);
    std::snprintf(line, sizeof line, "%.17g,%.17g,%s,%.17g,%s\n", big, mixed,
                  pick(random) < 8 ? "" : std::to_string(tiny).c_str(), weight,
                  GroupCell(random, i, rows).c_str());
    text += line;
  }
  return text;
}

struct Columns {
  CellRules rules;
  RowLayout layout;
  explicit Columns(bool weighted = true, bool grouped = true) {
    rules.missingTexts = {""};
    rules.missingCode = -1e300;
    rules.checkGroupRange = false;
    layout = MakeLayout({"big", "mixed", "tiny", "w", "g"}, ',',
                        {{"big", "mixed", "tiny"}, weighted ? "w" : "", "", grouped ? "g" : ""});
  }
};

struct Way {
  int threads = 1;
  std::size_t readSize = kBlock;
  unsigned batchRows = kBlockBatchRows;
  bool pipe = false;
};

PassResult Pass(const std::string& text, const Columns& s, PassOptions options, const Way& way) {
  const TempFile input(text, way.pipe);
  ChunkReader reader(input.Path(), way.readSize);
  options.threads = way.threads;
  options.batchRows = way.batchRows;
  return RunPass(reader, s.layout, s.rules, options);
}

// How the report defines its figures for a pass run with `options`.
ReportOptions FiguresOf(const PassOptions& options) {
  ReportOptions figures;
  figures.groupCovariance = options.groupCovariance;
  figures.weightKind =
      options.weightSquares ? figures::WeightKind::kAnalytic : figures::WeightKind::kFrequency;
  return figures;
}

std::string Json(const PassResult& pass, const Columns& s, const PassOptions& options) {
  return FormatJson(Report("data.csv", s.layout, pass, {}, FiguresOf(options)));
}

// Analytic weights where there are weights; the groups in order of first
// appearance under listwise deletion and sorted under pairwise.
PassOptions Options(bool pairwise, bool weighted = true) {
  PassOptions options;
  options.pairwise = pairwise;
  options.groupCovariance = true;
  options.blockBytes = kBlock;
  options.weightSquares = weighted;
  options.groupsInFileOrder = !pairwise;
  return options;
}

class ReproducibleThreaded : public ::testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(ReproducibleThreaded, SameBytesForAnyThreadsReadsBatchesAndInput) {
  const auto [pairwise, weightedAndGrouped] = GetParam();
  const std::string text = MakeText(7, 6000);
  const Columns s(weightedAndGrouped, weightedAndGrouped);
  const PassOptions options = Options(pairwise, weightedAndGrouped);
  const std::string base = Json(Pass(text, s, options, {}), s, options);
  for (int threads : {1, 2, 3, 8}) {
    for (std::size_t readSize : {std::size_t{1}, 3 * kBlock + 5, std::size_t{1} << 20}) {
      for (unsigned batchRows : {1u, 100u}) {
        for (bool pipe : {false, true}) {
          SCOPED_TRACE(std::to_string(threads) + " threads, read size " + std::to_string(readSize)
                       + ", batch " + std::to_string(batchRows) + (pipe ? ", pipe" : ", file"));
          EXPECT_EQ(Json(Pass(text, s, options, {threads, readSize, batchRows, pipe}), s, options),
                    base);
        }
      }
    }
  }
  // The data is such that the order of the sums shows: another grid rounds
  // otherwise.
  PassOptions otherGrid = options;
  otherGrid.blockBytes = 3 * kBlock;
  EXPECT_NE(Json(Pass(text, s, otherGrid, {}), s, otherGrid), base);
}

INSTANTIATE_TEST_SUITE_P(Deletion, ReproducibleThreaded,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

// Workers that pause at random before each chunk finish in a new order every
// time; the bits stay.
TEST(ReproducibleThreaded, RandomDelaysInTheWorkersChangeNoBit) {
  const std::string text = MakeText(11, 3000);
  const Columns s;
  const PassOptions options = Options(false);
  const std::string base = Json(Pass(text, s, options, {1, kBlock}), s, options);
  std::mt19937 seeds(5);
  for (int run = 0; run < 8; ++run) {
    const auto seed = static_cast<std::uint32_t>(seeds());
    SetChunkHookForTests([seed] {
      thread_local std::mt19937 random(
          seed
          ^ static_cast<std::uint32_t>(std::hash<std::thread::id>()(std::this_thread::get_id())));
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    });
    EXPECT_EQ(Json(Pass(text, s, options, {4, kBlock}), s, options), base) << "run " << run;
  }
  SetChunkHookForTests({});
}

using Bytes = std::vector<std::byte>;

// A state saved, as it travels to another process.
Bytes StateOf(const std::string& text, const Columns& s, PassOptions options, const Way& way,
              std::uint64_t first, std::uint64_t end) {
  options.firstBlock = first;
  options.endBlock = end;
  options.keepForest = true;
  PassResult pass = Pass(text, s, options, way);
  return SaveState(
      StateOfPass("data.csv", s.layout, s.rules, options, FiguresOf(options), {}, {}, pass));
}

PassState Travelled(const Bytes& bytes) { return LoadState(bytes, "a state"); }

std::string MergedJson(const std::vector<Bytes>& states) {
  PassState merged = Travelled(states.front());
  for (std::size_t k = 1; k < states.size(); ++k)
    MergeState(merged, Travelled(states[k]), "state " + std::to_string(k));
  const ReportOptions figures = ReportOptionsOf(merged);
  StateReport report = ReportOfState(std::move(merged));
  return FormatJson(Report("data.csv", report.layout, report.pass, report.skipped, figures));
}

class StatePartsThreaded : public ::testing::TestWithParam<bool> {};

TEST_P(StatePartsThreaded, PartsOnTheGridMergeToTheOnePassBytes) {
  const bool pairwise = GetParam();
  // A part read from a pipe stops reading at its end, as `head` does; the
  // thread that feeds the pipe is then told so by EPIPE, not killed.
  std::signal(SIGPIPE, SIG_IGN);
  const std::string text = MakeText(3, 5000);
  const Columns s;
  const PassOptions options = Options(pairwise);
  const std::string whole = Json(Pass(text, s, options, {2, kBlock}), s, options);
  constexpr std::uint64_t kEnd = ChunkReader::kNoEnd;
  EXPECT_EQ(MergedJson({StateOf(text, s, options, {1, kBlock}, 0, kEnd)}), whole);
  // Cuts at odd blocks, so that the parts' forests have siblings to merge.
  EXPECT_EQ(MergedJson({StateOf(text, s, options, {2, kBlock}, 0, 13),
                        StateOf(text, s, options, {3, 2 * kBlock, kBlockBatchRows, true}, 13, 21),
                        StateOf(text, s, options, {1, kBlock}, 21, kEnd)}),
            whole);
  // A part that holds no block, past the end, changes nothing.
  EXPECT_EQ(MergedJson({StateOf(text, s, options, {2, kBlock}, 0, 40),
                        StateOf(text, s, options, {2, kBlock}, 40, kEnd),
                        StateOf(text, s, options, {2, kBlock}, 5000, kEnd)}),
            whole);
}

INSTANTIATE_TEST_SUITE_P(Deletion, StatePartsThreaded, ::testing::Bool());

TEST(StateMerge, PartsMissingOrGivenTwiceAreNamed) {
  const std::string text = MakeText(3, 2000);
  const Columns s;
  const PassOptions options = Options(false);
  const Bytes first = StateOf(text, s, options, {}, 0, 10);
  const Bytes second = StateOf(text, s, options, {}, 10, ChunkReader::kNoEnd);
  const auto fails = [](const std::function<void()>& merge, const std::string& says) {
    const std::string what = MessageOf<DataError>(merge);
    EXPECT_NE(what.find(says), std::string::npos) << what << "; expected: " << says;
  };
  fails([&] { ReportOfState(Travelled(second)); }, "the state of a part is missing");
  fails(
      [&] {
        PassState merged = Travelled(first);
        MergeState(merged, Travelled(second), "b.state");
        MergeState(merged, Travelled(second), "c.state");
      },
      "c.state holds blocks 10 to ");
  fails(
      [&] {
        PassState merged = Travelled(first);
        MergeState(merged, Travelled(first), "b.state");
        MergeState(merged, Travelled(second), "c.state");
        MergeState(merged, Travelled(second), "d.state");
      },
      "d.state holds blocks 10 to");
}

}  // namespace
}  // namespace vorelstat
