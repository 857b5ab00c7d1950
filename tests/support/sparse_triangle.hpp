// Small sparse symmetric matrices as the solver takes them, and dense arithmetic to hold results
// against.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

// Upper triangle by rows, diagonal first, indices from 1.
template <class Int>
struct Triangle {
  Int n = 0;
  std::vector<Int> ia{1};
  std::vector<Int> ja;
  std::vector<double> a;
};

// Seven-point Laplacian of a grid plus a small shift, scaled to a unit diagonal.
template <class Int>
Triangle<Int> Laplacian(Int nx, Int ny, Int nz) {
  Triangle<Int> matrix;
  matrix.n = nx * ny * nz;
  const double off = -1.0 / 6.1;
  for (Int k = 0; k < nz; ++k)
    for (Int j = 0; j < ny; ++j)
      for (Int i = 0; i < nx; ++i) {
        const Int row = (k * ny + j) * nx + i + 1;
        const auto add = [&](Int column, double value) {
          matrix.ja.push_back(column);
          matrix.a.push_back(value);
        };
        add(row, 1.0);
        if (i + 1 < nx) add(row + 1, off);
        if (j + 1 < ny) add(row + nx, off);
        if (k + 1 < nz) add(row + nx * ny, off);
        matrix.ia.push_back(static_cast<Int>(matrix.ja.size()) + 1);
      }
  return matrix;
}

// Rows with random columns anywhere above the diagonal, so that every thread writes everywhere.
inline Triangle<int> RandomTriangle(int n, int perRow) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  Triangle<int> matrix;
  matrix.n = n;
  for (int row = 1; row <= n; ++row) {
    matrix.ja.push_back(row);
    matrix.a.push_back(2.0 + value(random));
    const int step = std::max(1, (n - row) / perRow);
    for (int column = row + step; column <= n; column += step) {
      matrix.ja.push_back(column);
      matrix.a.push_back(value(random) / perRow);
    }
    matrix.ia.push_back(static_cast<int>(matrix.ja.size()) + 1);
  }
  return matrix;
}

inline std::vector<double> RandomVector(int n) {
  std::mt19937 random(11);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  std::vector<double> result(static_cast<std::size_t>(n));
  for (double& v : result) v = value(random);
  return result;
}

template <class Int>
std::vector<double> Dense(const Triangle<Int>& matrix) {
  const auto n = static_cast<std::size_t>(matrix.n);
  std::vector<double> dense(n * n, 0.0);
  for (std::size_t row = 0; row < n; ++row)
    for (auto e = static_cast<std::size_t>(matrix.ia[row] - 1);
         e < static_cast<std::size_t>(matrix.ia[row + 1] - 1); ++e) {
      const auto column = static_cast<std::size_t>(matrix.ja[e] - 1);
      dense[row * n + column] = dense[column * n + row] = matrix.a[e];
    }
  return dense;
}

// Gaussian elimination without pivoting, enough for a diagonally dominant matrix.
inline std::vector<double> SolveDense(std::vector<double> a, std::vector<double> b) {
  const std::size_t n = b.size();
  for (std::size_t k = 0; k < n; ++k)
    for (std::size_t i = k + 1; i < n; ++i) {
      const double f = a[i * n + k] / a[k * n + k];
      for (std::size_t j = k; j < n; ++j) a[i * n + j] -= f * a[k * n + j];
      b[i] -= f * b[k];
    }
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t j = i + 1; j < n; ++j) b[i] -= a[i * n + j] * b[j];
    b[i] /= a[i * n + i];
  }
  return b;
}

inline void ExpectNear(const std::vector<double>& found, const std::vector<double>& expected,
                       double tolerance) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i)
    ASSERT_NEAR(found[i], expected[i], tolerance) << "equation " << i + 1;
}
