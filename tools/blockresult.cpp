#include "blockresult.h"

#include <algorithm>
#include <numeric>

namespace vorelstat {

std::size_t GroupTable::Slot(const GroupLabel& label, std::uint64_t place) {
  const auto [it, added] = _index.try_emplace(label, _groups.size());
  if (added) {
    if (_within.empty()) _within.assign(figures::TriangleSize(_nValues), 0.0);
    _labels.push_back(label);
    _places.push_back(place);
    _groups.emplace_back(_nValues, _keep);
  } else {
    _places[it->second] = std::min(_places[it->second], place);
  }
  return it->second;
}

void GroupTable::Add(const GroupTable& other) {
  if (other._groups.empty()) return;
  if (_within.empty()) _within.assign(other._within.size(), 0.0);
  for (std::size_t c = 0; c < _within.size(); ++c)
    _within[c] += other._within[c];
  for (std::size_t g = 0; g < other._groups.size(); ++g)
    At(Slot(other._labels[g], other._places[g])).Join(other._groups[g], _within);
}

void GroupTable::Reorder(const std::vector<std::size_t>& order) {
  std::vector<GroupLabel> labels;
  std::vector<std::uint64_t> places;
  std::vector<figures::GroupMoments> groups;
  for (std::size_t g : order) {
    labels.push_back(std::move(_labels[g]));
    places.push_back(_places[g]);
    groups.push_back(std::move(_groups[g]));
  }
  _labels = std::move(labels);
  _places = std::move(places);
  _groups = std::move(groups);
  _index.clear();
  for (std::size_t g = 0; g < _labels.size(); ++g)
    _index.emplace(_labels[g], g);
}

void GroupTable::OrderSlotsByPlace() {
  std::vector<std::size_t> order(_groups.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [this](std::size_t a, std::size_t b) { return _places[a] < _places[b]; });
  Reorder(order);
}

void GroupTable::TakeInto(std::vector<GroupLabel>& labels,
                          std::vector<figures::GroupMoments>& groups, std::vector<double>& within,
                          bool inSlotOrder) {
  std::vector<std::size_t> order(_groups.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (!inSlotOrder) {
    std::sort(order.begin(), order.end(), [this](std::size_t a, std::size_t b) {
      return GroupLabel::SortsBefore(_labels[a], _labels[b]);
    });
  }
  for (std::size_t g : order) {
    labels.push_back(std::move(_labels[g]));
    groups.push_back(std::move(_groups[g]));
  }
  within = std::move(_within);
  within.resize(figures::TriangleSize(_nValues), 0.0);
  _index.clear();
  _labels.clear();
  _places.clear();
  _groups.clear();
}

BlockResult::BlockResult(const BlockShape& shape) {
  if (shape.pairwise) {
    pairwise = std::make_unique<vorel::MatrixPairwise>(shape.missingCode);
  } else {
    listwise = std::make_unique<vorel::MatrixListwise>();
  }
  if (shape.weightSquares)
    weightSquares.assign(shape.pairwise ? figures::TriangleSize(shape.nValues) : 1, 0.0);
  if (shape.grouped) groups.emplace(shape.nValues, shape.groupCovariance);
}

BlockResult& BlockResult::operator+=(const BlockResult& other) {
  if (listwise) *listwise += *other.listwise;
  if (pairwise) *pairwise += *other.pairwise;
  for (std::size_t c = 0; c < weightSquares.size(); ++c)
    weightSquares[c] += other.weightSquares[c];
  if (groups) groups->Add(*other.groups);
  return *this;
}

void RowCounts::Add(const RowCounts& o) {
  read += o.read;
  used += o.used;
  incomplete += o.incomplete;
  withoutWeight += o.withoutWeight;
  zeroWeight += o.zeroWeight;
  withoutGroup += o.withoutGroup;
  cellsCoerced += o.cellsCoerced;
}

void ExactTotals::Add(const ExactTotals& o) {
  rows.Add(o.rows);
  for (std::size_t c = 0; c < counts.size(); ++c) {
    counts[c] += o.counts[c];
    ranges[c].Include(o.ranges[c]);
  }
  for (std::size_t c = 0; c < pairConstancy.size(); ++c)
    pairConstancy[c].Include(o.pairConstancy[c]);
}

}  // namespace vorelstat
