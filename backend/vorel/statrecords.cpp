#include <vorel/statrecords.h>

#include "columnkernels.h"

#include <utility>

namespace vorel {
namespace {

int Length(const std::vector<double>& v) { return static_cast<int>(v.size()); }

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

void VarStat::Init(const double* x, const double* weights, const double* regWeights,
                   WorkArea& work, int n) {
  CompressColumn(x, weights, regWeights, work.missingCode, n, work.x0, work.weights,
                 work.regWeights);
  VarStatData& r = *_my;
  r.nRows = Length(work.x0);
  r.weightSum = weights != nullptr ? SumValues(work.weights) : static_cast<double>(r.nRows);
  r.regWeightSum = regWeights != nullptr ? SumOrDot(work.regWeights, work.weights) : r.weightSum;
  // From here on work.weights holds the combined weights, or nothing.
  MultiplyInPlace(work.weights, work.regWeights);
  r.mean = StableMean(work.x0, work.weights, r.regWeightSum);
  r.min = MinValue(work.x0);
  r.max = MaxValue(work.x0);
  SubtractInPlace(work.x0, r.mean);
  r.css = WeightedDotProduct(work.x0, work.x0, work.weights);
}

void VarStat::Update(const VarStat& other) {
  VarStatData& t = *_my;
  const VarStatData& o = *other._my;
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum;
  const double ow = o.regWeightSum;
  const double om = o.mean;
  const double d = MeanShift(t.mean, tw, om, ow);
  const double newMean = t.mean + d;
  const double e = om - newMean;
  // Deliberate order: the four terms are added left to right as written.
  t.css = ((tw * d * d
            + o.css)
           + ow * e * e)
          + t.css;
  t.mean = newMean;
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
  // Ties and NaN hand the extreme to other; only a strictly better one stays.
  if (!(o.min > t.min)) t.min = o.min;
  if (!(o.max < t.max)) t.max = o.max;
}

int VarStat::NRows() const { return _my->nRows; }
double VarStat::WeightSum() const { return _my->weightSum; }
double VarStat::RegWeightSum() const { return _my->regWeightSum; }
double VarStat::Mean() const { return _my->mean; }
double VarStat::CSS() const { return _my->css; }
double VarStat::Min() const { return _my->min; }
double VarStat::Max() const { return _my->max; }
VarStatData& VarStat::Data() { return *_my; }
const VarStatData& VarStat::Data() const { return *_my; }
VarStat* VarStat::Copy() const { return new VarStat(*this); }

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
  CompressColumnPair(x0, x1, weights, regWeights, work.missingCode, n, work.x0, work.x1,
                     work.weights, work.regWeights);
  PairStatData& r = *_my;
  r.nRows = Length(work.x0);
  r.weightSum = weights != nullptr ? SumValues(work.weights) : static_cast<double>(r.nRows);
  MultiplyInPlace(work.weights, work.regWeights);
  r.regWeightSum = regWeights != nullptr ? SumValues(work.weights) : r.weightSum;
  r.mean0 = StableMean(work.x0, work.weights, r.regWeightSum);
  r.mean1 = StableMean(work.x1, work.weights, r.regWeightSum);
  SubtractInPlace(work.x0, r.mean0);
  SubtractInPlace(work.x1, r.mean1);
  r.css0 = WeightedDotProduct(work.x0, work.x0, work.weights);
  r.css1 = WeightedDotProduct(work.x1, work.x1, work.weights);
  r.cscp = WeightedDotProduct(work.x0, work.x1, work.weights);
}

void PairStat::Update(const PairStat& other) {
  PairStatData& t = *_my;
  const PairStatData& o = *other._my;
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum;
  const double ow = o.regWeightSum;
  const double om0 = o.mean0;
  const double om1 = o.mean1;
  const double d0 = MeanShift(t.mean0, tw, om0, ow);
  t.mean0 += d0;
  const double e0 = om0 - t.mean0;
  const double d1 = MeanShift(t.mean1, tw, om1, ow);
  t.mean1 += d1;
  const double e1 = om1 - t.mean1;
  // Deliberate order: in each sum the four terms are added left to right as written.
  t.css0 = ((tw * d0 * d0
             + o.css0)
            + ow * e0 * e0)
           + t.css0;
  t.css1 = ((tw * d1 * d1
             + o.css1)
            + ow * e1 * e1)
           + t.css1;
  t.cscp = ((tw * d0 * d1
             + o.cscp)
            + ow * e0 * e1)
           + t.cscp;
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
}

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
PairStat* PairStat::Copy() const { return new PairStat(*this); }

}  // namespace vorel
