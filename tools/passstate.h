// The state of a pass as vorelstat keeps it (--save-state) and merges it
// (vorelstat merge): everything the report needs, in the library's state
// format as a container of kind 9 ("vorelstat pass"), whose fields embed the
// states of the library's matrices (docs/state-format.md).
//
// A state holds one or more inputs. Each input is a run of blocks
// [firstBlock, endBlock) of one file's grid with the nodes of its block tree;
// the parts of one file, read in several passes on the same grid, combine
// into exactly the forest of one pass over the file, so that the merged
// report has the same bits as the one-pass report. Separate files stay
// separate inputs, summed in the order given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "blockresult.h"
#include "report.h"
#include "rowparser.h"
#include "statpass.h"

namespace vorelstat {

struct StateInput {
  std::string name;  // the file as the pass named it
  std::uint64_t firstBlock = 0;
  std::uint64_t endBlock = 0;
  Forest forest;
};

struct PassState {
  // The columns: the header's fields, the value fields, and the weight,
  // regression weight and group fields (each as field + 1, 0 for none).
  std::vector<std::string> header;
  std::vector<std::uint64_t> valueFields;
  std::uint64_t weightField = 0, regWeightField = 0, groupField = 0;
  std::vector<SkippedColumn> skipped;
  // The options that shape the figures.
  bool pairwise = false;
  bool groupCovariance = false;
  double missingCode = 0.0;
  std::vector<std::string> missingTexts;
  bool nonNumericIsMissing = false;
  std::uint64_t blockBytes = 0;
  double ddof = 1.0;
  bool analyticWeights = false;       // --weight-kind analytic: the nodes keep weight squares
  std::vector<std::string> excluded;  // --exclude, as given
  bool groupsInFileOrder = false;
  std::uint64_t mostGroups = 0;
  bool checkGroupRange = false;
  std::int64_t groupLo = 0, groupHi = 0;

  ExactTotals totals{0, false};
  std::vector<StateInput> inputs;
};

// The state of a finished pass, which must have kept its forest; `figures`
// gives the divisor's conventions, `excluded` the columns --exclude named.
PassState StateOfPass(const std::string& name, const RowLayout& layout, const CellRules& rules,
                      const PassOptions& options, const ReportOptions& figures,
                      const std::vector<std::string>& excluded,
                      const std::vector<SkippedColumn>& skipped, PassResult& pass);

// How a state's figures are defined (the sections are left at all).
ReportOptions ReportOptionsOf(const PassState& state);

std::vector<std::byte> SaveState(const PassState& state);
// Throws DataError naming `what` (the file) and the problem.
PassState LoadState(std::span<const std::byte> bytes, const std::string& what);

// Adds `other` (named `otherName` in errors) to `into`: a UsageError names the
// first difference of columns or of an option that shapes the figures; a part that overlaps the
// blocks held, or comes before the start of its file, is a DataError.
void MergeState(PassState& into, PassState&& other, const std::string& otherName);

// What the report prints from a state: a layout, the skipped columns and
// the figures, as one pass would have them.
struct StateReport {
  std::string name;  // the inputs, joined
  RowLayout layout;
  std::vector<SkippedColumn> skipped;
  PassResult pass;
};
// Throws DataError when an input misses blocks (a part not given).
StateReport ReportOfState(PassState&& state);

}  // namespace vorelstat
