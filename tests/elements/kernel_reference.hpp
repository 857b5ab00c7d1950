// A slow, plain twin of the nine kernels for the tests: dense strain matrix B (6 rows), dense
// material matrix M, one point after the other, the library's atan, nothing taken out of a loop.
// Written from the formulas alone; it shares no code with the kernels but the rule tables.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

#include "elemlib/element_types.hpp"
#include "elemlib/feinteg.hpp"

namespace reference {

enum class Shape { Tet4, Hex8, Tet10 };

struct Element {
  Shape shape = Shape::Tet4;
  MaterialLoadData loadData = {};
  MaterialConstants stiffness = {};
  ElementVector coords = {};
  ElementScalars phi = {};
  ElementVector disp = {};
  ElementScalars scalars = {};
};

inline int NodeCount(Shape s) { return s == Shape::Tet4 ? 4 : s == Shape::Hex8 ? 8 : 10; }
inline int LevelCount(Shape s) { return s == Shape::Hex8 ? 8 : 4; }

struct Point {
  double weight;  // volume weight is weight times |J|
  double parameter[3];
};

inline int Order(const Element& e) {
  double largest = e.phi[0];
  for (int a = 1; a < LevelCount(e.shape); ++a)
    if (e.phi[a] > largest) largest = e.phi[a];
  return largest > static_cast<double>(-0.2f) ? 3 : 2;
}

inline std::vector<Point> Points(const Element& e) {
  const int order = Order(e);
  std::vector<Point> out;
  if (e.shape == Shape::Hex8) {
    for (int i = 1; i <= order; ++i)
      for (int j = 1; j <= order; ++j)
        for (int m = 1; m <= order; ++m)
          out.push_back({FEINTEG_GAUSSWEIGHT(order, i) * FEINTEG_GAUSSWEIGHT(order, j) *
                             FEINTEG_GAUSSWEIGHT(order, m),
                         {FEINTEG_GAUSSPOINT(order, i), FEINTEG_GAUSSPOINT(order, j),
                          FEINTEG_GAUSSPOINT(order, m)}});
    return out;
  }
  const FEINTEG::IntegrationRule& rule = FEINTEG::TetRuleTable[order - 1];
  for (int p = 0; p < FEINTEG_TETPOINTCOUNT(order); ++p) {
    const double* c = rule.points.get() + 4 * p;
    out.push_back({rule.weights[static_cast<std::size_t>(p)] / 6.0, {c[1], c[2], c[3]}});
  }
  return out;
}

// Shape functions n[a] and derivatives d[a][k] at the parameters, written out node by node.
inline void ShapeFunctions(Shape s, const double (&p)[3], double (&n)[10], double (&d)[10][3]) {
  if (s == Shape::Hex8) {
    const double sign[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                               {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};
    for (int a = 0; a < 8; ++a) {
      const double f[3] = {1 + sign[a][0] * p[0], 1 + sign[a][1] * p[1], 1 + sign[a][2] * p[2]};
      n[a] = f[0] * f[1] * f[2] / 8;
      d[a][0] = sign[a][0] * f[1] * f[2] / 8;
      d[a][1] = sign[a][1] * f[0] * f[2] / 8;
      d[a][2] = sign[a][2] * f[0] * f[1] / 8;
    }
    return;
  }
  const double l[4] = {1 - p[0] - p[1] - p[2], p[0], p[1], p[2]};
  const double dl[4][3] = {{-1, -1, -1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  if (s == Shape::Tet4) {
    for (int a = 0; a < 4; ++a) {
      n[a] = l[a];
      for (int k = 0; k < 3; ++k) d[a][k] = dl[a][k];
    }
    return;
  }
  const int edge[6][2] = {{1, 2}, {2, 3}, {1, 3}, {1, 4}, {2, 4}, {3, 4}};
  for (int a = 0; a < 4; ++a) {
    n[a] = l[a] * (2 * l[a] - 1);
    for (int k = 0; k < 3; ++k) d[a][k] = (4 * l[a] - 1) * dl[a][k];
  }
  for (int e = 0; e < 6; ++e) {
    const int a = edge[e][0] - 1, b = edge[e][1] - 1;
    n[4 + e] = 4 * l[a] * l[b];
    for (int k = 0; k < 3; ++k) d[4 + e][k] = 4 * (l[a] * dl[b][k] + l[b] * dl[a][k]);
  }
}

// All that the sums of a point need.
struct PointState {
  double dV, smooth, sharp;
  double strain[6], stress[6];
  double b[6][30];  // strain matrix
  double m[6][6];   // material matrix
};

inline double PresenceAt(double x) {
  const double floor = 0.0010000000474974513;
  return (std::atan(x) * 0.3183098861837907 + 0.5) * 0.9989999999525025 + floor;
}

inline PointState Evaluate(const Element& e, const Point& p, double slope) {
  const int nodes = NodeCount(e.shape);
  double n[10] = {}, d[10][3] = {};
  ShapeFunctions(e.shape, p.parameter, n, d);

  double j[3][3] = {};  // dx_i/dp_k
  for (int a = 0; a < nodes; ++a)
    for (int i = 0; i < 3; ++i)
      for (int k = 0; k < 3; ++k) j[i][k] += e.coords[3 * a + i] * d[a][k];
  const double det = j[0][0] * (j[1][1] * j[2][2] - j[1][2] * j[2][1]) -
                     j[0][1] * (j[1][0] * j[2][2] - j[1][2] * j[2][0]) +
                     j[0][2] * (j[1][0] * j[2][1] - j[1][1] * j[2][0]);

  PointState s = {};
  for (int a = 0; a < nodes; ++a) {
    // J^T grad N = dN/dp by Cramer's rule.
    double g[3];
    for (int i = 0; i < 3; ++i) {
      double t[3][3];
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) t[r][c] = c == i ? d[a][r] : j[c][r];
      g[i] = (t[0][0] * (t[1][1] * t[2][2] - t[1][2] * t[2][1]) -
              t[0][1] * (t[1][0] * t[2][2] - t[1][2] * t[2][0]) +
              t[0][2] * (t[1][0] * t[2][1] - t[1][1] * t[2][0])) /
             det;
    }
    for (int i = 0; i < 3; ++i) s.b[i][3 * a + i] = g[i];
    s.b[3][3 * a] = g[1], s.b[3][3 * a + 1] = g[0];
    s.b[4][3 * a + 1] = g[2], s.b[4][3 * a + 2] = g[1];
    s.b[5][3 * a] = g[2], s.b[5][3 * a + 2] = g[0];
  }

  const double* c = e.stiffness;
  const double normal[3][3] = {{c[0], c[1], c[2]}, {c[1], c[3], c[4]}, {c[2], c[4], c[5]}};
  for (int r = 0; r < 3; ++r) {
    for (int q = 0; q < 3; ++q) s.m[r][q] = normal[r][q];
    s.m[3 + r][3 + r] = 0.5 * c[6 + r];
  }

  double level = 0, temperature = 0;
  const double linear[4] = {1 - p.parameter[0] - p.parameter[1] - p.parameter[2], p.parameter[0],
                            p.parameter[1], p.parameter[2]};
  for (int a = 0; a < LevelCount(e.shape); ++a)
    level += (e.shape == Shape::Hex8 ? n[a] : linear[a]) * e.phi[a];
  for (int a = 0; a < nodes; ++a) temperature += n[a] * e.scalars[a];

  for (int r = 0; r < 6; ++r) {
    for (int i = 0; i < 3 * nodes; ++i) s.strain[r] += s.b[r][i] * e.disp[i];
    if (r < 3) s.strain[r] -= e.loadData[1 + r] * temperature + e.loadData[4 + r];
  }
  for (int r = 0; r < 6; ++r)
    for (int q = 0; q < 6; ++q) s.stress[r] += s.m[r][q] * s.strain[q];
  s.dV = p.weight * det;
  s.smooth = PresenceAt(slope * level);
  s.sharp = PresenceAt(1000.0 * (slope * level));
  return s;
}

inline void Forces(const Element& e, double slope, ElementVector& forces) {
  for (double& f : forces) f = 0;
  for (const Point& p : Points(e)) {
    const PointState s = Evaluate(e, p, slope);
    for (int i = 0; i < 30; ++i)
      for (int r = 0; r < 6; ++r) forces[i] += s.smooth * s.dV * s.b[r][i] * s.stress[r];
  }
}

// B^T M B, upper triangle.
inline void Matrix(const Element& e, double slope, ElementMatrix& matrix) {
  for (double& k : matrix) k = 0;
  for (const Point& p : Points(e)) {
    const PointState s = Evaluate(e, p, slope);
    for (int j = 0; j < 3 * NodeCount(e.shape); ++j) {
      double mb[6] = {};
      for (int r = 0; r < 6; ++r)
        for (int q = 0; q < 6; ++q) mb[r] += s.m[r][q] * s.b[q][j];
      for (int i = 0; i <= j; ++i) {
        double sum = 0;
        for (int r = 0; r < 6; ++r) sum += s.b[r][i] * mb[r];
        matrix[i + 30 * j] += s.smooth * s.dV * sum;
      }
    }
  }
}

// The strain energy of which the forces are the derivative: sum of H U dV.
inline double Energy(const Element& e, double slope) {
  double energy = 0;
  for (const Point& p : Points(e)) {
    const PointState s = Evaluate(e, p, slope);
    double u = 0;
    for (int r = 0; r < 6; ++r) u += 0.5 * s.strain[r] * s.stress[r];
    energy += s.smooth * u * s.dV;
  }
  return energy;
}

inline void Response(const Element& e, double slope, ElementResponse& out) {
  for (double& r : out) r = 0;
  for (const Point& p : Points(e)) {
    const PointState s = Evaluate(e, p, slope);
    const double* t = s.stress;
    double u = 0;
    for (int r = 0; r < 6; ++r) u += 0.5 * s.strain[r] * t[r];
    const double v = std::sqrt(
        3 * ((std::pow(t[0] - t[1], 2) + std::pow(t[1] - t[2], 2) + std::pow(t[2] - t[0], 2)) / 6 +
             t[3] * t[3] + t[4] * t[4] + t[5] * t[5]));
    out[0] += s.dV;
    out[1] += s.smooth * s.dV;
    out[2] += s.sharp * s.dV;
    out[3] += u * s.smooth * s.smooth * s.dV;
    out[4] += v * s.smooth * s.smooth * s.dV;
    out[5] += u * s.sharp * s.dV;
    out[6] += v * s.sharp * s.dV;
    out[7] += (t[0] + t[1] + t[2]) / 3 * s.sharp * s.dV;
    out[8] += (s.strain[0] + s.strain[1] + s.strain[2]) / 3 * s.sharp * s.dV;
  }
}

}  // namespace reference
