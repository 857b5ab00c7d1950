// A test on a small model that is filled in memory, with every module as at program start before
// and after it.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <string>
#include <vector>

#include "elements/response_arrays.hpp"
#include "response/compsave.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/slepccgsolver.hpp"
#include "support/box_model.hpp"
#include "support/working_directory.hpp"

class SmallModel : public WorkingDirectory {
 protected:
  void SetUp() override {
    WorkingDirectory::SetUp();
    threads_ = omp_get_max_threads();
    omp_set_num_threads(2);
  }

  void TearDown() override {
    omp_set_num_threads(threads_);
    WorkingDirectory::TearDown();
  }

 private:
  int threads_ = 1;
};

// The system's upper triangle as a full symmetric matrix, [row][column] from 0.
using DenseMatrix = std::vector<std::vector<double>>;

inline DenseMatrix DenseOf(const double* matrix) {
  const auto n = static_cast<std::size_t>(SOLVERSTA::NumEquations);
  DenseMatrix dense(n, std::vector<double>(n, 0.0));
  for (std::int64_t i = 1; i <= SOLVERSTA::NumEquations; ++i)
    for (std::int64_t p = RowStart(i); p < RowStart(i + 1); ++p) {
      const auto row = static_cast<std::size_t>(Slot(i));
      const auto column = static_cast<std::size_t>(Slot(ColumnAt(p)));
      dense[row][column] += matrix[Slot(p)];
      if (row != column) dense[column][row] += matrix[Slot(p)];
    }
  return dense;
}

// Gaussian elimination; the matrices of the tests need no pivoting.
inline std::vector<double> SolveDense(DenseMatrix a, std::vector<double> b) {
  const std::size_t n = b.size();
  for (std::size_t k = 0; k < n; ++k)
    for (std::size_t i = k + 1; i < n; ++i) {
      const double factor = a[i][k] / a[k][k];
      for (std::size_t j = k; j < n; ++j) a[i][j] -= factor * a[k][j];
      b[i] -= factor * b[k];
    }
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t j = i + 1; j < n; ++j) b[i] -= a[i][j] * b[j];
    b[i] /= a[i][i];
  }
  return b;
}

inline std::vector<double> Multiply(const DenseMatrix& a, const std::vector<double>& x) {
  std::vector<double> y(x.size(), 0.0);
  for (std::size_t i = 0; i < x.size(); ++i)
    for (std::size_t j = 0; j < x.size(); ++j) y[i] += a[i][j] * x[j];
  return y;
}

// A symmetric system given by its full upper triangle of which zeros are not stored.
inline void SetMatrix(const DenseMatrix& upper, bool use4) {
  std::vector<std::int64_t> starts{1};
  std::vector<std::int64_t> columns;
  std::vector<double> values;
  for (std::size_t i = 0; i < upper.size(); ++i) {
    for (std::size_t j = i; j < upper.size(); ++j)
      if (i == j || upper[i][j] != 0.0) {
        columns.push_back(static_cast<std::int64_t>(j) + 1);
        values.push_back(upper[i][j]);
      }
    starts.push_back(static_cast<std::int64_t>(columns.size()) + 1);
  }
  SetStructure(starts, columns, use4);
  std::copy(values.begin(), values.end(), SOLVERSTA::SysMatrix.get());
}

// Times that `text` stands in the log.
inline int CountInLog(const std::string& text) {
  const std::string log = Log();
  int count = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
  return count;
}
