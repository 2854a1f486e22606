#include "wmlMath/WmlLinearSystem.h"

#include <cmath>
#include <vector>

namespace Wml {

template <class Real>
bool LinearSystem<Real>::Solve(const GMatrix<Real>& rkA, const Real* afB, Real* afX) {
  return Solve(rkA, afB, afX, nullptr);
}

template <class Real>
bool LinearSystem<Real>::Solve(const GMatrix<Real>& rkA, const Real* afB, Real* afX,
                               PivotTrace* pkTrace) {
  const int iSize = rkA.GetRows();
  assert(iSize == rkA.GetColumns());
  GMatrix<Real> kA = rkA;
  if (afX != afB)
    for (int i = 0; i < iSize; ++i) afX[i] = afB[i];

  // Work arrays; std::vector reports a failed allocation by std::bad_alloc.
  std::vector<int> aiColIndex(iSize), aiRowIndex(iSize);
  std::vector<bool> abPivoted(iSize, false);

  int iRow = 0, iCol = 0;
  for (int i0 = 0; i0 < iSize; ++i0) {
    // Largest magnitude among the unpivoted rows and columns, first maximum wins.
    Real fMax = Real(0);
    for (int i1 = 0; i1 < iSize; ++i1) {
      if (abPivoted[i1]) continue;
      for (int i2 = 0; i2 < iSize; ++i2) {
        if (abPivoted[i2]) continue;
        const Real fAbs = std::fabs(kA[i1][i2]);
        if (fAbs > fMax) {
          fMax = fAbs;
          iRow = i1;
          iCol = i2;
        }
      }
    }
    if (!(fMax != Real(0))) return false;  // singular (0, or a NaN that compared false)

    abPivoted[iCol] = true;
    if (iRow != iCol) {
      kA.SwapRows(iRow, iCol);
      const Real fSave = afX[iRow];
      afX[iRow] = afX[iCol];
      afX[iCol] = fSave;
    }
    aiRowIndex[i0] = iRow;
    aiColIndex[i0] = iCol;
    if (pkTrace) pkTrace->emplace_back(iRow, iCol);

    const Real fInv = Real(1) / kA[iCol][iCol];
    kA[iCol][iCol] = Real(1);
    for (int i2 = 0; i2 < iSize; ++i2) kA[iCol][i2] *= fInv;
    afX[iCol] *= fInv;

    for (int i1 = 0; i1 < iSize; ++i1) {
      if (i1 == iCol) continue;
      const Real fSave = kA[i1][iCol];
      kA[i1][iCol] = Real(0);
      for (int i2 = 0; i2 < iSize; ++i2) kA[i1][i2] -= kA[iCol][i2] * fSave;
      afX[i1] -= afX[iCol] * fSave;
    }
  }

  // Undo the column order of the pivots: the work matrix then holds the inverse (discarded).
  for (int i1 = iSize - 1; i1 >= 0; --i1) {
    if (aiRowIndex[i1] != aiColIndex[i1]) {
      for (int i2 = 0; i2 < iSize; ++i2) {
        const Real fSave = kA[i2][aiRowIndex[i1]];
        kA[i2][aiRowIndex[i1]] = kA[i2][aiColIndex[i1]];
        kA[i2][aiColIndex[i1]] = fSave;
      }
    }
  }
  return true;
}

template class LinearSystem<double>;

}  // namespace Wml
