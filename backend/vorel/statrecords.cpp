#include <vorel/statrecords.h>

#include <memory>
#include <utility>

#include "records/pairwiserecords.h"

namespace vorel {
namespace {

// A handle's record copied into a handle that may have lost its own to a move.
template <typename Record>
void AssignRecord(std::unique_ptr<Record>& target, const Record& source) {
  if (target)
    *target = source;
  else
    target = std::make_unique<Record>(source);
}

}  // namespace

void CompressColumn(const double* x, const double* weights, const double* regWeights,
                    double missingCode, int n, std::vector<double>& outX,
                    std::vector<double>& outWeights, std::vector<double>& outRegWeights) {
  const auto size = static_cast<std::size_t>(n);
  outX.resize(size);
  outWeights.resize(weights != nullptr ? size : 0);
  outRegWeights.resize(regWeights != nullptr ? size : 0);
  std::size_t kept = 0;
  for (int i = 0; i < n; ++i) {
    if (x[i] == missingCode) continue;
    outX[kept] = x[i];
    if (weights != nullptr) outWeights[kept] = weights[i];
    if (regWeights != nullptr) outRegWeights[kept] = regWeights[i];
    ++kept;
  }
  outX.resize(kept);
  if (weights != nullptr) outWeights.resize(kept);
  if (regWeights != nullptr) outRegWeights.resize(kept);
}

void CompressColumnPair(const double* x0, const double* x1, const double* weights,
                        const double* regWeights, double missingCode, int n,
                        std::vector<double>& outX0, std::vector<double>& outX1,
                        std::vector<double>& outWeights, std::vector<double>& outRegWeights) {
  const auto size = static_cast<std::size_t>(n);
  outX0.resize(size);
  outX1.resize(size);
  outWeights.resize(weights != nullptr ? size : 0);
  outRegWeights.resize(regWeights != nullptr ? size : 0);
  std::size_t kept = 0;
  for (int i = 0; i < n; ++i) {
    if (x0[i] == missingCode || x1[i] == missingCode) continue;
    outX0[kept] = x0[i];
    outX1[kept] = x1[i];
    if (weights != nullptr) outWeights[kept] = weights[i];
    if (regWeights != nullptr) outRegWeights[kept] = regWeights[i];
    ++kept;
  }
  outX0.resize(kept);
  outX1.resize(kept);
  if (weights != nullptr) outWeights.resize(kept);
  if (regWeights != nullptr) outRegWeights.resize(kept);
}

// ---------------------------------------------------------------- VarStat

VarStat::VarStat() : _my(std::make_unique<VarStatData>()) {}
VarStat::VarStat(VarStatData* data) : _my(data) {}
VarStat::VarStat(const VarStat& other) : _my(std::make_unique<VarStatData>(*other._my)) {}
VarStat::VarStat(VarStat&& other) noexcept = default;
VarStat::~VarStat() = default;

VarStat& VarStat::operator=(const VarStat& other) {
  if (this != &other) AssignRecord(_my, *other._my);
  return *this;
}

VarStat& VarStat::operator=(VarStat&& other) noexcept {
  _my.swap(other._my);
  return *this;
}

void VarStat::Init(const double* x, const double* weights, const double* regWeights, WorkArea& work,
                   int n) {
  internal::InitVar(*_my, x, weights, regWeights, work, n);
}

void VarStat::Update(const VarStat& other) { internal::UpdateVar(*_my, *other._my); }

int VarStat::NRows() const { return _my->nRows; }
double VarStat::WeightSum() const { return _my->weightSum; }
double VarStat::RegWeightSum() const { return _my->regWeightSum; }
double VarStat::Mean() const { return _my->mean; }
double VarStat::CSS() const { return _my->css; }
double VarStat::Min() const { return _my->min; }
double VarStat::Max() const { return _my->max; }
VarStatData& VarStat::Data() { return *_my; }
const VarStatData& VarStat::Data() const { return *_my; }
VarStat* VarStat::Copy() const { return std::make_unique<VarStat>(*this).release(); }

// ---------------------------------------------------------------- PairStat

PairStat::PairStat() : _my(std::make_unique<PairStatData>()) {}
PairStat::PairStat(PairStatData* data) : _my(data) {}
PairStat::PairStat(const PairStat& other) : _my(std::make_unique<PairStatData>(*other._my)) {}
PairStat::PairStat(PairStat&& other) noexcept = default;
PairStat::~PairStat() = default;

PairStat& PairStat::operator=(const PairStat& other) {
  if (this != &other) AssignRecord(_my, *other._my);
  return *this;
}

PairStat& PairStat::operator=(PairStat&& other) noexcept {
  _my.swap(other._my);
  return *this;
}

void PairStat::Init(const double* x0, const double* x1, const double* weights,
                    const double* regWeights, WorkArea& work, int n) {
  internal::InitPair(*_my, x0, x1, weights, regWeights, work, n);
}

void PairStat::Update(const PairStat& other) { internal::UpdatePair(*_my, *other._my); }

int PairStat::NRows() const { return _my->nRows; }
double PairStat::WeightSum() const { return _my->weightSum; }
double PairStat::RegWeightSum() const { return _my->regWeightSum; }
double PairStat::Mean0() const { return _my->mean0; }
double PairStat::Mean1() const { return _my->mean1; }
double PairStat::CSS0() const { return _my->css0; }
double PairStat::CSS1() const { return _my->css1; }
double PairStat::CSCP() const { return _my->cscp; }
PairStatData& PairStat::Data() { return *_my; }
const PairStatData& PairStat::Data() const { return *_my; }
PairStat* PairStat::Copy() const { return std::make_unique<PairStat>(*this).release(); }

}  // namespace vorel
