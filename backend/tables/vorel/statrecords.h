// VarStat and PairStat: the statistics of one variable, and of one pair of
// variables, with pairwise deletion of missing values.
//
// A row counts for a variable when its cell is not missing, and for a pair when
// neither cell is. A cell is missing when it compares equal to the missing code
// and only then: a NaN cell is kept (and makes that variable's figures NaN),
// and a NaN missing code drops nothing. A row with zero weight is kept.
//
// Init reduces one batch of raw columns to a record in two passes over a
// compressed copy of the kept cells (mean first, then sums about that mean).
// Update folds another record in by an update formula on means and corrected
// sums; no sum of raw squares is ever kept. The weight of every formula is the
// combined weight, frequency weight x regression weight, a missing factor
// counting as 1.
//
// Ownership: a handle owns its record. The copy constructor and
// operator= copy the record, so two handles never share one; moves transfer it.
// A moved-from handle may only be destroyed or assigned to.
//
// These classes assert nothing. An exhausted heap surfaces as std::bad_alloc
// from the constructor, Copy, or Init while the scratch grows; Init writes the
// record only after the compression, so a failed Init leaves it as it was.
#pragma once

#include <vorel/initialextremes.h>

#include <memory>
#include <vector>

namespace vorel {

struct VarStatData {
  int nRows = 0;              // rows whose cell is not missing
  double weightSum = 0.0;     // their frequency weight (their count without weights)
  double regWeightSum = 0.0;  // their combined weight; weightSum without regression weights
  double mean = 0.0;          // mean under the combined weight
  double css = 0.0;           // sum of combined weight x (x - mean)^2
  double min = MinInitial;    // smallest kept value
  double max = MaxInitial;    // largest kept value
};

struct PairStatData {
  int nRows = 0;           // rows where neither cell is missing
  double weightSum = 0.0;  // as in VarStatData, over those rows
  double regWeightSum = 0.0;
  double mean0 = 0.0;  // mean of the first variable over those rows
  double mean1 = 0.0;  // mean of the second variable over those rows
  double css0 = 0.0;   // corrected sum of squares of the first variable
  double css1 = 0.0;   // corrected sum of squares of the second variable
  double cscp = 0.0;   // sum of combined weight x (x0 - mean0) x (x1 - mean1)
};

// Scratch of Init and the one carrier of the missing code. The owner (a matrix)
// sets missingCode once; Init sizes the vectors on every call. Resizing keeps
// their storage, so a pass allocates only while batches keep growing. After an
// Init the vectors hold that call's leftovers, which nothing may read.
struct WorkArea {
  std::vector<double> x0;          // kept cells of the (first) variable
  std::vector<double> x1;          // kept cells of the second variable (pairs only)
  std::vector<double> weights;     // frequency weights of the kept rows, later combined
  std::vector<double> regWeights;  // regression weights of the kept rows
  double missingCode = 0.0;        // the cell value that means missing
};

// Copies the rows of x whose cell does not compare equal to missingCode into
// outX, with their weight and regression weight where those columns exist
// (outWeights / outRegWeights end empty for a null column). Rows keep their order.
void CompressColumn(const double* x, const double* weights, const double* regWeights,
                    double missingCode, int n, std::vector<double>& outX,
                    std::vector<double>& outWeights, std::vector<double>& outRegWeights);
// The same for a pair: a row is dropped when either cell equals missingCode.
void CompressColumnPair(const double* x0, const double* x1, const double* weights,
                        const double* regWeights, double missingCode, int n,
                        std::vector<double>& outX0, std::vector<double>& outX1,
                        std::vector<double>& outWeights, std::vector<double>& outRegWeights);

class VarStat {
 public:
  // A record in the empty state: no rows, sums and mean 0, Min() MinInitial,
  // Max() MaxInitial.
  VarStat();
  // Takes over a record allocated with new; the handle deletes it.
  explicit VarStat(VarStatData* data);
  VarStat(const VarStat& other);
  VarStat& operator=(const VarStat& other);
  VarStat(VarStat&& other) noexcept;
  VarStat& operator=(VarStat&& other) noexcept;
  ~VarStat();

  // Replaces the record by the statistics of the n rows of x whose cell is not
  // work.missingCode. weights and regWeights may each be null (all 1).
  void Init(const double* x, const double* weights, const double* regWeights, WorkArea& work,
            int n);
  // Folds other's record into this one; other is unchanged and may be *this.
  // A record without rows changes nothing.
  void Update(const VarStat& other);

  // The fields, readable at any time; the empty state gives its start values.
  int NRows() const;
  double WeightSum() const;
  double RegWeightSum() const;
  double Mean() const;
  double CSS() const;
  double Min() const;
  double Max() const;

  VarStatData& Data();
  const VarStatData& Data() const;
  // A new handle on the heap with a copy of the record; the caller deletes it.
  VarStat* Copy() const;

 private:
  std::unique_ptr<VarStatData> _my;
};

class PairStat {
 public:
  PairStat();
  explicit PairStat(PairStatData* data);
  PairStat(const PairStat& other);
  PairStat& operator=(const PairStat& other);
  PairStat(PairStat&& other) noexcept;
  PairStat& operator=(PairStat&& other) noexcept;
  ~PairStat();

  // Replaces the record by the statistics of the rows where neither x0 nor x1
  // equals work.missingCode; x0 is the first variable, x1 the second.
  void Init(const double* x0, const double* x1, const double* weights, const double* regWeights,
            WorkArea& work, int n);
  // Folds other's record into this one; other is unchanged and may be *this.
  void Update(const PairStat& other);

  int NRows() const;
  double WeightSum() const;
  double RegWeightSum() const;
  double Mean0() const;
  double Mean1() const;
  double CSS0() const;
  double CSS1() const;
  double CSCP() const;

  PairStatData& Data();
  const PairStatData& Data() const;
  PairStat* Copy() const;

 private:
  std::unique_ptr<PairStatData> _my;
};

}  // namespace vorel
