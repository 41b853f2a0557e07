#include "blockresult.h"

#include <algorithm>
#include <numeric>

namespace vorelstat {

figures::GroupMoments& GroupTable::Of(GroupKey key) {
  const auto [it, added] = _index.try_emplace(key, _groups.size());
  if (added) {
    if (_within.empty()) _within.assign(figures::TriangleSize(_nValues), 0.0);
    _keys.push_back(key);
    _groups.emplace_back(_nValues, _keep);
  }
  return _groups[it->second];
}

void GroupTable::Add(const GroupTable& other) {
  if (other._keys.empty()) return;
  if (_within.empty()) _within.assign(other._within.size(), 0.0);
  for (std::size_t c = 0; c < _within.size(); ++c)
    _within[c] += other._within[c];
  for (std::size_t g = 0; g < other._keys.size(); ++g)
    Of(other._keys[g]).Join(other._groups[g], _within);
}

void GroupTable::TakeSorted(std::vector<GroupKey>& keys, std::vector<figures::GroupMoments>& groups,
                            std::vector<double>& within) {
  std::vector<std::size_t> order(_keys.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(),
            [this](std::size_t a, std::size_t b) { return _keys[a] < _keys[b]; });
  for (std::size_t g : order) {
    keys.push_back(_keys[g]);
    groups.push_back(std::move(_groups[g]));
  }
  within = std::move(_within);
  within.resize(figures::TriangleSize(_nValues), 0.0);
  _index.clear();
  _keys.clear();
  _groups.clear();
}

BlockResult::BlockResult(const BlockShape& shape) {
  if (shape.pairwise) {
    pairwise = std::make_unique<vorel::MatrixPairwise>(shape.missingCode);
  } else {
    listwise = std::make_unique<vorel::MatrixListwise>();
  }
  if (shape.grouped) groups.emplace(shape.nValues, shape.groupCovariance);
}

BlockResult& BlockResult::operator+=(const BlockResult& other) {
  if (listwise) *listwise += *other.listwise;
  if (pairwise) *pairwise += *other.pairwise;
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
