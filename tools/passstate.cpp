#include "passstate.h"

#include <vorel/state.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

#include "common/statecodec.h"
#include "errors.h"
#include "report.h"
#include "tool.h"

namespace vorelstat {
namespace {

using vorel::internal::StateKind;
using vorel::internal::StateReader;
using vorel::internal::StateWriter;

constexpr std::uint64_t kAny = ~std::uint64_t{0};
constexpr std::uint64_t kMostHeaderFields = std::uint64_t{1} << 24;
constexpr std::uint64_t kMostRows = std::uint64_t{1} << 53;
// The layout of the container's fields; the first field of a state, so that
// a reader refuses another layout before it reads anything else.
constexpr int kLayout = 2;

// The nodes of a forest as the file holds them: plain fields, converted from
// and to the pass's results apart from the reading, which checks the bytes.
struct GroupImage {
  std::string label;  // as the report prints it; read back as a group cell
  std::uint64_t rows = 0;
  double weight = 0.0;
  double weightSquares = 0.0;
  std::vector<double> origin, means, cscp;
};

struct NodeImage {
  int level = 0;
  std::uint64_t index = 0;
  std::vector<std::byte> matrix;  // a library state of kind 1 or 2
  std::vector<double> weightSquares;
  std::vector<GroupImage> groups;
  std::vector<double> within;
};

struct InputImage {
  std::string name;
  std::uint64_t firstBlock = 0, endBlock = 0;
  std::vector<NodeImage> nodes;
};

// Everything but the inputs' results comes as it is in PassState.
struct StateImage {
  PassState* state;  // header, columns, options and totals
  std::vector<InputImage> inputs;
};

// A u64 count of elements, then the elements.
template <class Archive, class Store, class Fields>
void List(Archive& a, Store& store, std::uint64_t most, Fields fields) {
  std::size_t n = store.size();
  a.Count(n, most);
  a.Records(store, n, fields);
}

// Doubles behind their count, which the reader checks against the shape
// after reading (at most `most` of them).
template <class Archive, class Cells>
void Doubles(Archive& a, Cells& cells, std::uint64_t most) {
  std::size_t n = cells.size();
  a.Count(n, most);
  a.Reals(cells, n);
}

template <class Archive, class Whole>
void WholeField(Archive& a, Whole& whole) {
  a.Count(whole, kAny);  // the two's complement bits
}

template <class Archive, class Flag>
void FlagField(Archive& a, Flag& on) {
  a.Count(on, 1);
}

// The one list of the fields of the file, for writing, measuring and reading.
// The lambdas take their own archive `w`: the reader measures a blank record
// with them before it reads any.
template <class Archive, class State, class Inputs>
void Fields(Archive& a, State& s, Inputs& inputs) {
  int layout = kLayout;
  a.Dim("the layout of the vorelstat state", layout, kLayout, kLayout);
  List(a, s.header, kMostHeaderFields, [](auto& w, auto& name) { w.Text(name); });
  const std::uint64_t fields = s.header.size();
  List(a, s.valueFields, kMostColumns, [&](auto& w, auto& field) { w.Count(field, fields - 1); });
  a.Count(s.weightField, fields);
  a.Count(s.regWeightField, fields);
  a.Count(s.groupField, fields);
  List(a, s.skipped, fields, [&](auto& w, auto& column) {
    w.Count(column.field, fields - 1);
    w.Text(column.reason);
  });
  FlagField(a, s.pairwise);
  FlagField(a, s.groupCovariance);
  a.Real(s.missingCode);
  List(a, s.missingTexts, kMostHeaderFields, [](auto& w, auto& text) { w.Text(text); });
  FlagField(a, s.nonNumericIsMissing);
  a.Count(s.blockBytes, kAny);
  a.Real(s.ddof);
  FlagField(a, s.analyticWeights);
  List(a, s.excluded, kMostHeaderFields, [](auto& w, auto& name) { w.Text(name); });
  FlagField(a, s.groupsInFileOrder);
  a.Count(s.mostGroups, kAny);
  FlagField(a, s.checkGroupRange);
  WholeField(a, s.groupLo);
  WholeField(a, s.groupHi);

  const std::size_t k = s.valueFields.size();
  auto& rows = s.totals.rows;
  for (auto* count : {&rows.read, &rows.used, &rows.incomplete, &rows.withoutWeight,
                      &rows.zeroWeight, &rows.withoutGroup, &rows.cellsCoerced})
    a.Count(*count, kMostRows);
  a.Records(s.totals.counts, k, [](auto& w, auto& count) { w.Count(count, kMostRows); });
  a.Records(s.totals.ranges, k, [](auto& w, auto& range) {
    w.Real(range.min);
    w.Real(range.max);
  });
  a.Records(s.totals.pairConstancy, s.pairwise ? k * k : 0, [](auto& w, auto& constancy) {
    w.Count(constancy.state, 2);
    w.Real(constancy.value);
  });

  const bool grouped = s.groupField != 0;
  const std::size_t triangle = figures::TriangleSize(k);
  const std::size_t own = s.groupCovariance ? triangle : 0;
  const std::size_t squares = !s.analyticWeights ? 0 : s.pairwise ? triangle : 1;
  const auto group = [&](auto& w, auto& g) {
    w.Text(g.label);
    w.Count(g.rows, kMostRows);
    w.Real(g.weight);
    w.Real(g.weightSquares);
    Doubles(w, g.origin, k);
    Doubles(w, g.means, k);
    Doubles(w, g.cscp, own);
  };
  const auto node = [&](auto& w, auto& n) {
    w.Dim("the level of a node", n.level, 0, 63);
    w.Count(n.index, kAny >> n.level);
    w.Blob(n.matrix);
    Doubles(w, n.weightSquares, squares);
    if (!grouped) return;
    List(w, n.groups, kAny, group);
    Doubles(w, n.within, triangle);
  };
  List(a, inputs, kAny, [&](auto& w, auto& input) {
    w.Text(input.name);
    w.Count(input.firstBlock, kAny);
    w.Count(input.endBlock, kAny);
    List(w, input.nodes, kAny, node);
  });
}

NodeImage ImageOf(const Forest::Node& node) {
  NodeImage image;
  image.level = static_cast<int>(node.level);
  image.index = node.index;
  const BlockResult& result = node.result;
  image.matrix = result.listwise ? result.listwise->SaveState() : result.pairwise->SaveState();
  image.weightSquares = result.weightSquares;
  if (result.groups) {
    const GroupTable& table = *result.groups;
    for (std::size_t g = 0; g < table.Size(); ++g) {
      const figures::GroupMoments& moments = table.Groups()[g];
      GroupImage group;
      group.label = table.Labels()[g].Display();
      group.rows = moments.Rows();
      group.weight = moments.Weight();
      group.weightSquares = moments.WeightSquares();
      group.origin.assign(moments.Origin(), moments.Origin() + table.NValues());
      group.means.assign(moments.RelativeMeans(), moments.RelativeMeans() + table.NValues());
      group.cscp = moments.CrossProducts();
      image.groups.push_back(std::move(group));
    }
    image.within = table.Within();
  }
  return image;
}

[[noreturn]] void Damaged(const std::string& what, const std::string& problem) {
  throw DataError(what + ": not a usable vorelstat state: " + problem);
}

BlockShape ShapeOf(const PassState& s) {
  BlockShape shape;
  shape.nValues = static_cast<unsigned>(s.valueFields.size());
  shape.pairwise = s.pairwise;
  shape.missingCode = s.missingCode;
  shape.grouped = s.groupField != 0;
  shape.groupCovariance = s.groupCovariance;
  shape.weightSquares = s.analyticWeights;
  return shape;
}

// The result of a node, from its image; checks what the codec cannot.
BlockResult ResultOf(NodeImage& image, const BlockShape& shape, const std::string& what) {
  BlockResult result(shape);
  const std::span<const std::byte> matrix(image.matrix);
  try {
    if (shape.pairwise) {
      *result.pairwise = vorel::MatrixPairwise::LoadState(matrix);
    } else {
      *result.listwise = vorel::MatrixListwise::LoadState(matrix);
    }
  } catch (const vorel::StateError& e) {
    Damaged(what, "the matrix of node (" + std::to_string(image.level) + ", "
                      + std::to_string(image.index) + "): " + e.what());
  }
  const unsigned columns =
      shape.pairwise ? result.pairwise->NColumns() : result.listwise->NColumns();
  if (columns != 0 && columns != shape.nValues)
    Damaged(what, "a matrix of " + std::to_string(columns) + " columns in a state of "
                      + std::to_string(shape.nValues));
  if (shape.pairwise
      && !(std::bit_cast<std::uint64_t>(result.pairwise->MissingCode())
           == std::bit_cast<std::uint64_t>(shape.missingCode)))
    Damaged(what, "a matrix with another missing code than the state's");
  if (image.weightSquares.size() != result.weightSquares.size())
    Damaged(what, "sums of squared weights of another shape");
  result.weightSquares = std::move(image.weightSquares);
  if (!shape.grouped) return result;
  GroupTable& table = *result.groups;
  const std::size_t triangle = figures::TriangleSize(shape.nValues);
  if (image.within.size() != (image.groups.empty() ? 0 : triangle))
    Damaged(what, "pooled cross-products of another shape");
  std::vector<double> unused(triangle, 0.0);
  GroupLabel label;
  for (GroupImage& group : image.groups) {
    label.Read(group.label);
    const std::size_t groupsBefore = table.Size();
    const std::size_t slot = table.Slot(label, 0);
    if (group.rows == 0 || table.Size() == groupsBefore)
      Damaged(what, "a group that is empty or listed twice");
    if (group.origin.size() != shape.nValues || group.means.size() != shape.nValues
        || group.cscp.size() != (shape.groupCovariance ? triangle : 0))
      Damaged(what, "a group of another shape");
    // Joined into a fresh group, the figures are taken as they are.
    table.At(slot).Join(group.rows, group.weight, group.origin.data(), group.means.data(),
                        shape.groupCovariance ? group.cscp.data() : nullptr, unused,
                        group.weightSquares);
  }
  if (!image.groups.empty()) table.Within() = std::move(image.within);
  return result;
}

// Adds a node to an input after checking that it lies in the input's blocks,
// after the nodes before it.
void InsertNode(StateInput& input, Forest::Node node, const std::string& what) {
  if (node.FirstBlock() < std::max(input.firstBlock, input.forest.EndBlock())
      || node.EndBlock() > input.endBlock || node.EndBlock() <= node.FirstBlock())
    Damaged(what, "its nodes are out of order or outside the blocks of their input");
  input.forest.Insert(std::move(node));
}

// Blocks [first, end) in words.
std::string Blocks(std::uint64_t first, std::uint64_t end) {
  if (end == first) return "no blocks";
  return "blocks " + std::to_string(first) + " to " + std::to_string(end - 1);
}

}  // namespace

PassState StateOfPass(const std::string& name, const RowLayout& layout, const CellRules& rules,
                      const PassOptions& options, const ReportOptions& figures,
                      const std::vector<std::string>& excluded,
                      const std::vector<SkippedColumn>& skipped, PassResult& pass) {
  PassState s;
  s.header = layout.names;
  s.valueFields.assign(layout.valueFields.begin(), layout.valueFields.end());
  const auto plusOne = [](const std::optional<std::size_t>& field) {
    return field ? std::uint64_t{*field} + 1 : 0;
  };
  s.weightField = plusOne(layout.weightField);
  s.regWeightField = plusOne(layout.regWeightField);
  s.groupField = plusOne(layout.groupField);
  s.skipped = skipped;
  s.pairwise = options.pairwise;
  s.groupCovariance = options.groupCovariance;
  s.missingCode = rules.missingCode;
  s.missingTexts = rules.missingTexts;
  s.nonNumericIsMissing = rules.nonNumericIsMissing;
  s.blockBytes = options.blockBytes;
  s.ddof = figures.ddof;
  s.analyticWeights = options.weightSquares;
  s.excluded = excluded;
  s.groupsInFileOrder = options.groupsInFileOrder;
  s.mostGroups = options.mostGroups;
  s.checkGroupRange = rules.checkGroupRange;
  if (rules.checkGroupRange) {
    s.groupLo = rules.groupLo;
    s.groupHi = rules.groupHi;
  }
  s.totals.rows = pass.rows;
  s.totals.counts = pass.cellCounts;
  s.totals.ranges = pass.ranges;
  s.totals.pairConstancy = pass.pairConstancy;
  s.inputs.push_back({name, pass.firstBlock, pass.endBlock, std::move(*pass.forest)});
  pass.forest.reset();
  return s;
}

ReportOptions ReportOptionsOf(const PassState& state) {
  ReportOptions options;
  options.groupCovariance = state.groupCovariance;
  options.ddof = state.ddof;
  options.weightKind =
      state.analyticWeights ? figures::WeightKind::kAnalytic : figures::WeightKind::kFrequency;
  return options;
}

std::vector<std::byte> SaveState(const PassState& state) {
  std::vector<InputImage> inputs;
  for (const StateInput& input : state.inputs) {
    InputImage image{input.name, input.firstBlock, input.endBlock, {}};
    for (const Forest::Node& node : input.forest.Nodes())
      image.nodes.push_back(ImageOf(node));
    inputs.push_back(std::move(image));
  }
  StateWriter measure = StateWriter::Measure();
  Fields(measure, state, inputs);
  StateWriter writer(StateKind::ToolPass, measure.Bytes());
  Fields(writer, state, inputs);
  return writer.Finish();
}

PassState LoadState(std::span<const std::byte> bytes, const std::string& what) {
  PassState state;
  std::vector<InputImage> inputs;
  try {
    StateReader reader(bytes, StateKind::ToolPass);
    Fields(reader, state, inputs);
    reader.Finish();
  } catch (const vorel::StateError& e) {
    throw DataError(what + ": not a usable vorelstat state: " + e.what());
  }
  const std::uint64_t fields = state.header.size();
  for (std::uint64_t field : {state.weightField, state.regWeightField, state.groupField}) {
    if (field != 0 && std::count(state.valueFields.begin(), state.valueFields.end(), field - 1))
      Damaged(what, "a column is a value and a weight or group at once");
  }
  if (fields == 0 || state.blockBytes == 0) Damaged(what, "no columns or no block size");
  const BlockShape shape = ShapeOf(state);
  for (InputImage& image : inputs) {
    if (image.endBlock < image.firstBlock) Damaged(what, "an input ends before it starts");
    StateInput input{std::move(image.name), image.firstBlock, image.endBlock, {}};
    for (NodeImage& node : image.nodes) {
      Forest::Node built{static_cast<std::uint32_t>(node.level), node.index,
                         ResultOf(node, shape, what)};
      InsertNode(input, std::move(built), what);
    }
    state.inputs.push_back(std::move(input));
  }
  return state;
}

namespace {

std::string Names(const PassState& s, const std::vector<std::uint64_t>& fields) {
  std::string text;
  for (std::uint64_t field : fields)
    text += (text.empty() ? "" : ",") + s.header[field];
  return text;
}

std::string NameOf(const PassState& s, std::uint64_t fieldPlusOne) {
  return fieldPlusOne == 0 ? "(none)" : s.header[fieldPlusOne - 1];
}

std::string Texts(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts)
    joined += (joined.empty() ? "\"" : ", \"") + text + "\"";
  return joined;
}

std::string OnOff(bool on) { return on ? "on" : "off"; }

std::string GroupRange(const PassState& s) {
  if (!s.checkGroupRange) return "(none)";
  return std::to_string(s.groupLo) + ":" + std::to_string(s.groupHi);
}

// The first thing that differs between two states' shapes, or nothing.
std::optional<std::string> ShapeDifference(const PassState& a, const PassState& b) {
  struct Item {
    const char* what;
    std::string left, right;
  };
  const Item items[] = {
      {"value columns", Names(a, a.valueFields), Names(b, b.valueFields)},
      {"weight column", NameOf(a, a.weightField), NameOf(b, b.weightField)},
      {"regression weight column", NameOf(a, a.regWeightField), NameOf(b, b.regWeightField)},
      {"group column", NameOf(a, a.groupField), NameOf(b, b.groupField)},
      {"deletion", a.pairwise ? "pairwise" : "listwise", b.pairwise ? "pairwise" : "listwise"},
      {"--group-covariance", OnOff(a.groupCovariance), OnOff(b.groupCovariance)},
      {"missing code", RoundTrip(a.missingCode), RoundTrip(b.missingCode)},
      {"missing texts", Texts(a.missingTexts), Texts(b.missingTexts)},
      {"--non-numeric", a.nonNumericIsMissing ? "missing" : "error",
       b.nonNumericIsMissing ? "missing" : "error"},
      {"block size", std::to_string(a.blockBytes), std::to_string(b.blockBytes)},
      {"--ddof", RoundTrip(a.ddof), RoundTrip(b.ddof)},
      {"--weight-kind", a.analyticWeights ? "analytic" : "frequency",
       b.analyticWeights ? "analytic" : "frequency"},
      {"--exclude", Texts(a.excluded), Texts(b.excluded)},
      {"--group-order", a.groupsInFileOrder ? "first" : "sorted",
       b.groupsInFileOrder ? "first" : "sorted"},
      {"--max-groups", std::to_string(a.mostGroups), std::to_string(b.mostGroups)},
      {"--group-range", GroupRange(a), GroupRange(b)},
  };
  for (const Item& item : items) {
    if (item.left != item.right)
      return std::string(item.what) + ": " + item.left + " against " + item.right;
  }
  return std::nullopt;
}

}  // namespace

void MergeState(PassState& into, PassState&& other, const std::string& otherName) {
  if (const std::optional<std::string> difference = ShapeDifference(into, other))
    throw UsageError(otherName + " does not fit the states before it: " + *difference);
  into.totals.Add(other.totals);
  for (StateInput& input : other.inputs) {
    // A part that starts past block 0 continues the input before it.
    if (input.firstBlock == 0) {
      into.inputs.push_back(std::move(input));
      continue;
    }
    if (into.inputs.empty()) {
      throw DataError(otherName + " holds " + Blocks(input.firstBlock, input.endBlock)
                      + " of " + input.name + ", a part after the start of a file: give the "
                      "state of the part that starts at block 0 before it");
    }
    // A part that starts past the end of its file holds nothing.
    if (input.endBlock == input.firstBlock) continue;
    StateInput& last = into.inputs.back();
    if (input.firstBlock < last.endBlock) {
      throw DataError(otherName + " holds " + Blocks(input.firstBlock, input.endBlock)
                      + ", which overlap " + Blocks(last.firstBlock, last.endBlock)
                      + " held before it: a part given twice?");
    }
    last.forest.Combine(std::move(input.forest));
    last.endBlock = std::max(last.endBlock, input.endBlock);
  }
}

StateReport ReportOfState(PassState&& state) {
  StateReport report;
  const BlockShape shape = ShapeOf(state);
  std::optional<BlockResult> total;
  for (const StateInput& input : state.inputs) {
    // Every block of the input from 0 on: its nodes hold them all.
    if (input.firstBlock != 0 || input.forest.BlockCount() != input.endBlock) {
      throw DataError(input.name + ": the states hold " + std::to_string(input.forest.BlockCount())
                      + " of its " + Blocks(0, input.endBlock)
                      + "; the state of a part is missing (the part from block 0 comes first)");
    }
    BlockResult sum = SumOf(input.forest, shape);
    if (total) {
      *total += sum;
    } else {
      total.emplace(std::move(sum));
    }
    report.name += (report.name.empty() ? "" : ", ") + input.name;
  }
  if (!total) total.emplace(shape);
  RowLayout& layout = report.layout;
  layout.names = state.header;
  layout.roles.assign(layout.names.size(), FieldRole::kSkip);
  layout.slots.assign(layout.names.size(), 0);
  for (std::uint64_t field : state.valueFields) {
    layout.roles[field] = FieldRole::kValue;
    layout.slots[field] = layout.NValues();
    layout.valueFields.push_back(field);
  }
  const auto role = [&](std::uint64_t plusOne, FieldRole kind) -> std::optional<std::size_t> {
    if (plusOne == 0) return std::nullopt;
    layout.roles[plusOne - 1] = kind;
    return plusOne - 1;
  };
  layout.weightField = role(state.weightField, FieldRole::kWeight);
  layout.regWeightField = role(state.regWeightField, FieldRole::kRegWeight);
  layout.groupField = role(state.groupField, FieldRole::kGroup);
  report.skipped = std::move(state.skipped);
  report.pass.blockBytes = state.blockBytes;
  if (state.inputs.size() == 1) {
    report.pass.firstBlock = state.inputs[0].firstBlock;
    report.pass.endBlock = state.inputs[0].endBlock;
  }
  TakeFigures(report.pass, std::move(state.totals), std::move(*total), state.groupsInFileOrder,
              state.mostGroups, report.name);
  return report;
}

}  // namespace vorelstat
