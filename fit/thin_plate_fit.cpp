#include "fit/thin_plate_fit.h"

#include <suitesparse/umfpack.h>

#include <algorithm>
#include <cassert>
#include <string>

#include "fit/kernel_bank.h"
#include "fit/plane_filter.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

// Every UMFPACK status passes through here.
void CheckUmfpack(int status, const char* step) {
  if (status == UMFPACK_OK) return;
  std::string why;
  switch (status) {
    case UMFPACK_WARNING_singular_matrix:
      why = "the system is singular (are all weights zero?)";
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
  std::vector<double> taps(kernel.begin(),
                           kernel.begin() + static_cast<size_t>(kernelWidth) * kernelHeight);
  if (orientation == kConvolution) std::reverse(taps.begin(), taps.end());
  struct Tap {
    int dx, dy;
    double value;
  };
  std::vector<Tap> nonZero;
  const int cx = (kernelWidth - 1) / 2, cy = (kernelHeight - 1) / 2;
  for (int j = 0; j < kernelHeight; ++j)
    for (int i = 0; i < kernelWidth; ++i)
      if (taps[static_cast<size_t>(j) * kernelWidth + i] != 0.0)
        nonZero.push_back({i - cx, j - cy, taps[static_cast<size_t>(j) * kernelWidth + i]});

  SparseMatrixCSR m;
  m.rows = m.columns = width * height;
  const size_t reserved = nonZero.size() * static_cast<size_t>(m.rows);
  m.values.reserve(reserved);
  m.columnIndices.reserve(reserved);
  m.rowStarts.reserve(static_cast<size_t>(m.rows) + 1);
  m.rowStarts.push_back(1);
  std::vector<int32_t> rowColumns;
  std::vector<double> rowValues;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      rowColumns.clear();
      rowValues.clear();
      for (const Tap& t : nonZero) {
        const int sx = std::clamp(x + t.dx, 0, width - 1);
        const int sy = std::clamp(y + t.dy, 0, height - 1);
        const int32_t column = sy * width + sx;
        const auto found = std::find(rowColumns.begin(), rowColumns.end(), column);
        if (found != rowColumns.end()) {
          rowValues[found - rowColumns.begin()] += t.value;
        } else {
          rowColumns.push_back(column);
          rowValues.push_back(t.value);
        }
      }
      for (size_t e = 0; e < rowColumns.size(); ++e) {
        if (rowValues[e] == 0.0) continue;
        m.values.push_back(rowValues[e]);
        m.columnIndices.push_back(rowColumns[e] + 1);
      }
      m.rowStarts.push_back(static_cast<int32_t>(m.values.size()) + 1);
    }
  }
  m.values.shrink_to_fit();
  m.columnIndices.shrink_to_fit();
  m.nonZeros = static_cast<int32_t>(m.values.size());
  return m;
}

// UMFPACK's factors of (B + diag(w)), held as the transpose in compressed columns: our rows
// are its columns, and solving with UMFPACK_At solves the system itself.
struct ThinPlateSystem::Factorisation {
  std::vector<int32_t> columnStarts;  // from 0
  std::vector<int32_t> rowIndices;    // from 0
  std::vector<double> values;
  void* numeric = nullptr;
  ~Factorisation() {
    if (numeric) umfpack_di_free_numeric(&numeric);
  }
};

ThinPlateSystem::ThinPlateSystem(std::span<const double> weights, int32_t width, int32_t height)
    : factorisation_(std::make_unique<Factorisation>()),
      weights_(weights.begin(), weights.begin() + static_cast<size_t>(width) * height) {
  buildKernelBank();
  SparseMatrixCSR m = buildFilterMatrix(thinPlateStencil(), 5, 5, kCorrelation, width, height);
  for (int32_t r = 0; r < m.rows; ++r) {
    for (int32_t e = m.rowStarts[r] - 1; e < m.rowStarts[r + 1] - 1; ++e) {
      if (m.columnIndices[e] == r + 1) {
        m.values[e] += weights_[r];
        break;
      }
    }
  }
  // UMFPACK wants 0-based indices, ascending within each compressed column.
  Factorisation& f = *factorisation_;
  f.columnStarts.resize(m.rowStarts.size());
  f.rowIndices.resize(m.columnIndices.size());
  f.values.resize(m.values.size());
  std::vector<std::pair<int32_t, double>> entries;
  for (int32_t r = 0; r < m.rows; ++r) {
    const int32_t begin = m.rowStarts[r] - 1, end = m.rowStarts[r + 1] - 1;
    f.columnStarts[r] = begin;
    entries.clear();
    for (int32_t e = begin; e < end; ++e) entries.emplace_back(m.columnIndices[e] - 1, m.values[e]);
    std::sort(entries.begin(), entries.end());
    for (int32_t e = begin; e < end; ++e) {
      f.rowIndices[e] = entries[e - begin].first;
      f.values[e] = entries[e - begin].second;
    }
  }
  f.columnStarts[m.rows] = m.rowStarts[m.rows] - 1;

  // The stencil's pattern is symmetric (only the clamped values are not): ordering A + A^T
  // with nested dissection suits such grid matrices far better than the unsymmetric default.
  double control[UMFPACK_CONTROL];
  umfpack_di_defaults(control);
  control[UMFPACK_STRATEGY] = UMFPACK_STRATEGY_SYMMETRIC;
  control[UMFPACK_ORDERING] = UMFPACK_ORDERING_AMD;
  void* symbolic = nullptr;
  int status = umfpack_di_symbolic(m.rows, m.columns, f.columnStarts.data(), f.rowIndices.data(),
                                   f.values.data(), &symbolic, control, nullptr);
  if (status != UMFPACK_OK) {
    if (symbolic) umfpack_di_free_symbolic(&symbolic);
    CheckUmfpack(status, "ordering");
  }
  double info[UMFPACK_INFO];
  status = umfpack_di_numeric(f.columnStarts.data(), f.rowIndices.data(), f.values.data(), symbolic,
                              &f.numeric, nullptr, info);
  umfpack_di_free_symbolic(&symbolic);
  // Rounding rarely leaves an exact zero pivot, so a numerically singular system (weights all
  // zero: the stencil alone annihilates constants) is recognised by its pivot ratio instead.
  if (status == UMFPACK_OK && !(info[UMFPACK_RCOND] > kSingularPivotRatio)) {
    status = UMFPACK_WARNING_singular_matrix;
  }
  CheckUmfpack(status, "factorisation");
}

ThinPlateSystem::~ThinPlateSystem() = default;

void ThinPlateSystem::Solve(std::span<const double> data, std::span<double> output) const {
  const size_t n = weights_.size();
  std::vector<double> rhs(n), solution(n);
  for (size_t i = 0; i < n; ++i) rhs[i] = weights_[i] * data[i];
  const Factorisation& f = *factorisation_;
  CheckUmfpack(
      umfpack_di_solve(UMFPACK_At, f.columnStarts.data(), f.rowIndices.data(), f.values.data(),
                       solution.data(), rhs.data(), f.numeric, nullptr, nullptr),
      "solve");
  std::copy(solution.begin(), solution.end(), output.begin());
}

int32_t fitThinPlate(const ThinPlateRequest& request) {
  ThinPlateSystem system(request.weights, request.width, request.height);
  system.Solve(request.data, request.output);
  return 0;
}

}  // namespace marlith
