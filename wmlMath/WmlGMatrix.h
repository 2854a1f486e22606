// A general dense matrix: one contiguous row-major array and a table of row pointers into it,
// so that rows swap by swapping pointers.
#pragma once

#include <cassert>
#include <cstddef>
#include <vector>

namespace Wml {

template <class Real>
class GMatrix {
 public:
  GMatrix(int iRows = 0, int iCols = 0) { SetSize(iRows, iCols); }
  // Copies the entries of afEntry (iRows x iCols, row-major).
  GMatrix(int iRows, int iCols, const Real* afEntry) {
    SetSize(iRows, iCols);
    for (int i = 0; i < m_iQuantity; ++i) m_afData[i] = afEntry[i];
  }
  GMatrix(const GMatrix& rkM) { *this = rkM; }
  GMatrix& operator=(const GMatrix& rkM) {
    if (this == &rkM) return *this;
    SetSize(rkM.m_iRows, rkM.m_iCols);
    // Entries row by row as the source sees them (its rows may have been swapped).
    for (int r = 0; r < m_iRows; ++r)
      for (int c = 0; c < m_iCols; ++c) m_aafEntry[r][c] = rkM.m_aafEntry[r][c];
    return *this;
  }

  void SetSize(int iRows, int iCols) {
    assert(iRows >= 0 && iCols >= 0);
    m_iRows = iRows;
    m_iCols = iCols;
    m_iQuantity = iRows * iCols;
    m_afData.assign(static_cast<size_t>(m_iQuantity), Real(0));
    m_aafEntry.resize(static_cast<size_t>(m_iRows));
    for (int r = 0; r < m_iRows; ++r)
      m_aafEntry[r] = m_afData.data() + static_cast<size_t>(r) * m_iCols;
  }

  int GetRows() const { return m_iRows; }
  int GetColumns() const { return m_iCols; }
  int GetQuantity() const { return m_iQuantity; }

  Real* operator[](int iRow) {
    assert(0 <= iRow && iRow < m_iRows);
    return m_aafEntry[iRow];
  }
  const Real* operator[](int iRow) const {
    assert(0 <= iRow && iRow < m_iRows);
    return m_aafEntry[iRow];
  }
  Real& operator()(int iRow, int iCol) { return (*this)[iRow][iCol]; }
  Real operator()(int iRow, int iCol) const { return (*this)[iRow][iCol]; }

  void SwapRows(int iRow0, int iRow1) {
    assert(0 <= iRow0 && iRow0 < m_iRows && 0 <= iRow1 && iRow1 < m_iRows);
    Real* afSave = m_aafEntry[iRow0];
    m_aafEntry[iRow0] = m_aafEntry[iRow1];
    m_aafEntry[iRow1] = afSave;
  }

  GMatrix Transpose() const {
    GMatrix kT(m_iCols, m_iRows);
    for (int r = 0; r < m_iRows; ++r)
      for (int c = 0; c < m_iCols; ++c) kT.m_aafEntry[c][r] = m_aafEntry[r][c];
    return kT;
  }

 private:
  int m_iRows = 0;
  int m_iCols = 0;
  int m_iQuantity = 0;
  std::vector<Real> m_afData;
  std::vector<Real*> m_aafEntry;
};

using GMatrixd = GMatrix<double>;

}  // namespace Wml
