#include "fit/thin_plate_fit.h"

#include <suitesparse/umfpack.h>

#include <algorithm>
#include <cassert>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "fit/kernel_bank.h"
#include "fit/plane_filter.h"
#include "fit/thin_plate_strip_solver.h"
#include "marlith/error.hpp"
#include "plane/plane_convolution.h"
#include "plane/system_library.h"

namespace marlith {
namespace {

// UMFPACK's routines, from the library opened the first time a system is factored.
struct UmfpackRoutines {
  decltype(&umfpack_dl_defaults) defaults;
  decltype(&umfpack_dl_symbolic) symbolic;
  decltype(&umfpack_dl_numeric) numeric;
  decltype(&umfpack_dl_solve) solve;
  decltype(&umfpack_dl_free_symbolic) freeSymbolic;
  decltype(&umfpack_dl_free_numeric) freeNumeric;
};

const UmfpackRoutines& Umfpack() {
  static const UmfpackRoutines routines = [] {
    static const SystemLibrary library(MARLITH_UMFPACK_SONAME);
    return UmfpackRoutines{
        library.Get<decltype(umfpack_dl_defaults)>("umfpack_dl_defaults"),
        library.Get<decltype(umfpack_dl_symbolic)>("umfpack_dl_symbolic"),
        library.Get<decltype(umfpack_dl_numeric)>("umfpack_dl_numeric"),
        library.Get<decltype(umfpack_dl_solve)>("umfpack_dl_solve"),
        library.Get<decltype(umfpack_dl_free_symbolic)>("umfpack_dl_free_symbolic"),
        library.Get<decltype(umfpack_dl_free_numeric)>("umfpack_dl_free_numeric")};
  }();
  return routines;
}

// Every UMFPACK status passes through here. Status is checked rather than ignored: a singular
// system would otherwise hand back a plane of garbage or infinities without a word. The two
// determinant warnings say nothing about the solution and pass.
void CheckUmfpack(int status, const char* step) {
  if (status == UMFPACK_OK || status == UMFPACK_WARNING_determinant_underflow ||
      status == UMFPACK_WARNING_determinant_overflow) {
    return;
  }
  std::string why;
  switch (status) {
    case UMFPACK_WARNING_singular_matrix:
      why = "the system is singular";
      break;
    case UMFPACK_ERROR_invalid_matrix:
      why = "the matrix is malformed";
      break;
    case UMFPACK_ERROR_out_of_memory:
      why = "out of memory";
      break;
    default:
      why = "UMFPACK status " + std::to_string(status);
  }
  throw Error(std::string("thin-plate fit: ") + step + " failed: " + why);
}

// Smallest ratio of the smallest to the largest pivot accepted as regular.
constexpr double kSingularPivotRatio = 1e-13;

}  // namespace

SparseMatrixCSR buildFilterMatrix(std::span<const double> kernel, int32_t kernelWidth,
                                  int32_t kernelHeight, int32_t orientation, int32_t width,
                                  int32_t height) {
  // Exact zeros dropped: they would only add entries of zero.
  const std::vector<PlaneTap> taps =
      planeKernelTaps(kernel, kernelWidth, kernelHeight, orientation == kConvolution,
                      std::numeric_limits<double>::denorm_min());
  SparseMatrixCSR m;
  m.rows = m.columns = width * height;
  const size_t reserved = taps.size() * static_cast<size_t>(m.rows);
  m.values.reserve(reserved);
  m.columnIndices.reserve(reserved);
  m.rowStarts.reserve(static_cast<size_t>(m.rows) + 1);
  m.rowStarts.push_back(1);
  // One row is gathered at a time (taps clamped onto the same pixel merged, in the order met)
  // and closed when the walk moves to the next output sample.
  std::vector<int32_t> rowColumns;
  std::vector<double> rowValues;
  rowColumns.reserve(taps.size());
  rowValues.reserve(taps.size());
  auto closeRowsBefore = [&](size_t row) {
    while (m.rowStarts.size() <= row) {
      for (size_t e = 0; e < rowColumns.size(); ++e) {
        if (rowValues[e] == 0.0) continue;
        m.values.push_back(rowValues[e]);
        m.columnIndices.push_back(rowColumns[e] + 1);
      }
      m.rowStarts.push_back(static_cast<int32_t>(m.values.size()) + 1);
      rowColumns.clear();
      rowValues.clear();
    }
  };
  forEachPlaneTap(taps, width, height, PlaneEdge::kReplicate,
                  [&](size_t row, size_t input, double value) {
                    closeRowsBefore(row);
                    const auto column = static_cast<int32_t>(input);
                    const auto found = std::find(rowColumns.begin(), rowColumns.end(), column);
                    if (found != rowColumns.end()) {
                      rowValues[found - rowColumns.begin()] += value;
                    } else {
                      rowColumns.push_back(column);
                      rowValues.push_back(value);
                    }
                  });
  closeRowsBefore(static_cast<size_t>(m.rows));
  m.values.shrink_to_fit();
  m.columnIndices.shrink_to_fit();
  m.nonZeros = static_cast<int32_t>(m.values.size());
  return m;
}

// Owners of UMFPACK's symbolic and numeric objects.
struct SymbolicFree {
  void operator()(void* symbolic) const { Umfpack().freeSymbolic(&symbolic); }
};
struct NumericFree {
  void operator()(void* numeric) const { Umfpack().freeNumeric(&numeric); }
};
using UmfpackSymbolic = std::unique_ptr<void, SymbolicFree>;
using UmfpackNumeric = std::unique_ptr<void, NumericFree>;

// UMFPACK's 64-bit-index interface: with 32-bit indices its numeric workspace runs out of
// index range (reported as "out of memory") on strips of a few million samples, such as the
// seams of a 4-megapixel image with a 61-sample kernel.
using UmfIndex = SuiteSparse_long;

// UMFPACK's factors of (B + diag(w)), held as the transpose in compressed columns: our rows
// are its columns, and solving with UMFPACK_At solves the system itself.
struct ThinPlateSystem::Factorisation {
  std::vector<UmfIndex> columnStarts;  // from 0
  std::vector<UmfIndex> rowIndices;    // from 0
  std::vector<double> values;
  UmfpackNumeric numeric;

  Factorisation(const std::vector<double>& weights, int32_t width, int32_t height);
  void Solve(const double* rhs, double* solution) const;
};

ThinPlateSystem::Factorisation::Factorisation(const std::vector<double>& weights, int32_t width,
                                              int32_t height) {
  SparseMatrixCSR m = buildFilterMatrix(thinPlateStencil(), 5, 5, kCorrelation, width, height);

  // UMFPACK wants 0-based indices, ascending within each compressed column. The weight goes
  // onto the diagonal entry; where clamped taps cancelled on the diagonal (a 1 x 1 plane) the
  // entry is missing and is put back, so the system stays B + diag(w).
  columnStarts.resize(m.rowStarts.size());
  rowIndices.reserve(m.columnIndices.size() + 1);
  values.reserve(m.values.size() + 1);
  std::vector<std::pair<int32_t, double>> entries;
  entries.reserve(26);
  for (int32_t r = 0; r < m.rows; ++r) {
    columnStarts[r] = static_cast<UmfIndex>(rowIndices.size());
    entries.clear();
    bool diagonal = false;
    for (int32_t e = m.rowStarts[r] - 1; e < m.rowStarts[r + 1] - 1; ++e) {
      const int32_t column = m.columnIndices[e] - 1;
      double value = m.values[e];
      if (column == r) {
        value += weights[r];
        diagonal = true;
      }
      entries.emplace_back(column, value);
    }
    if (!diagonal) entries.emplace_back(r, weights[r]);
    std::sort(entries.begin(), entries.end());
    for (const auto& [row, value] : entries) {
      rowIndices.push_back(row);
      values.push_back(value);
    }
  }
  columnStarts[m.rows] = static_cast<UmfIndex>(rowIndices.size());
  const UmfIndex order = m.rows;
  m = SparseMatrixCSR{};  // released before the factorisation takes its memory

  // The stencil's pattern is symmetric (only the clamped values are not): ordering A + A^T
  // with AMD suits these grid matrices far better than the unsymmetric default (measured on
  // a 216 x 1000 strip: a third fewer flops). METIS orders with less fill but takes longer:
  // on a 1224 x 816 colour image with a 25-sample kernel, peak 578 MB and 6.0 s against
  // AMD's 691 MB and 5.0 s.
  double control[UMFPACK_CONTROL];
  Umfpack().defaults(control);
  control[UMFPACK_STRATEGY] = UMFPACK_STRATEGY_SYMMETRIC;
  control[UMFPACK_ORDERING] = UMFPACK_ORDERING_AMD;
  void* symbolicHandle = nullptr;
  int status = Umfpack().symbolic(order, order, columnStarts.data(), rowIndices.data(),
                                  values.data(), &symbolicHandle, control, nullptr);
  const UmfpackSymbolic symbolic(symbolicHandle);
  CheckUmfpack(status, "ordering");
  double info[UMFPACK_INFO];
  void* numericHandle = nullptr;
  status = Umfpack().numeric(columnStarts.data(), rowIndices.data(), values.data(), symbolic.get(),
                             &numericHandle, control, info);
  numeric.reset(numericHandle);
  // A second guard for other near-singular weightings: an exact zero pivot is reported as a
  // warning, a tiny one by the pivot ratio.
  if (status == UMFPACK_OK && !(info[UMFPACK_RCOND] > kSingularPivotRatio)) {
    status = UMFPACK_WARNING_singular_matrix;
  }
  CheckUmfpack(status, "factorisation");
}

void ThinPlateSystem::Factorisation::Solve(const double* rhs, double* solution) const {
  CheckUmfpack(Umfpack().solve(UMFPACK_At, columnStarts.data(), rowIndices.data(), values.data(),
                               solution, rhs, numeric.get(), nullptr, nullptr),
               "solve");
}

ThinPlateSystem::ThinPlateSystem(std::span<const double> weights, int32_t width, int32_t height,
                                 ThinPlateMethod method, int threads)
    : width_(width), height_(height) {
  assert(width > 0 && height > 0);
  const size_t n = static_cast<size_t>(width) * height;
  assert(weights.size() >= n);
  weights_.assign(weights.begin(), weights.begin() + n);
  // The stencil sums to zero, so B annihilates constants and needs weights to be regular. The
  // pivot ratio below does not reliably flag this case on large planes (rounding leaves pivots
  // of 1e-13 of the largest), so it is refused outright rather than answered with garbage.
  if (std::all_of(weights_.begin(), weights_.end(), [](double v) { return v == 0.0; })) {
    throw Error("thin-plate fit: every weight of the " + std::to_string(width) + " x " +
                std::to_string(height) + " plane is zero, so the system is singular");
  }
  if (method == ThinPlateMethod::kAutomatic) {
    strip_ = ThinPlateStripSolver::TryCreate(weights_, width, height, threads);
  }
  if (!strip_) factorisation_ = std::make_unique<Factorisation>(weights_, width, height);
}

ThinPlateSystem::~ThinPlateSystem() = default;

void ThinPlateSystem::Solve(std::span<const double> data, std::span<double> output) const {
  const size_t n = weights_.size();
  std::vector<double> rhs(n), solution(n);
  for (size_t i = 0; i < n; ++i) rhs[i] = weights_[i] * data[i];
  iterations_ = strip_ && strip_->Solve(rhs, solution) ? strip_->lastIterations() : -1;
  if (iterations_ < 0) {
    if (!factorisation_)
      factorisation_ = std::make_unique<Factorisation>(weights_, width_, height_);
    factorisation_->Solve(rhs.data(), solution.data());
  }
  std::copy(solution.begin(), solution.end(), output.begin());
}

int32_t fitThinPlate(const ThinPlateRequest& request) {
  ThinPlateSystem system(request.weights, request.width, request.height);
  system.Solve(request.data, request.output);
  return 0;
}

}  // namespace marlith
