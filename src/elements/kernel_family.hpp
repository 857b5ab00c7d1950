// The nine kernels as one family: three shapes times forces, matrix, response.
// Phases, in this order everywhere: field values, presence, geometry, strain, stress, weight,
// accumulate. Up to the weights a vector holds as many integration points as it has lanes; the
// force and stiffness sums over the points then run with the nodes in the lanes, so that they need
// no sum across lanes.
#pragma once

#include <cstddef>
#include <type_traits>

#include "elements/kernel_laws.hpp"
#include "elements/kernel_shapes.hpp"

template <class Isa>
constexpr int RoundUp(int n) {
  return (n + Isa::Lanes - 1) / Isa::Lanes * Isa::Lanes;
}

// Gradients, determinant and total strains of one group of points; where the gradients are
// constant, of the element, and then Real is a double.
template <class Shape, class Real>
struct Kinematics {
  Real gradient[3][Shape::Nodes];
  Real det;
  Real strain[6];
};

template <class Isa, class Shape>
using KinematicsOf = std::conditional_t<Shape::ConstantGradient, Kinematics<Shape, double>,
                                        Kinematics<Shape, Vector<Isa>>>;

template <class Shape, class Real>
[[gnu::always_inline]] inline void ComputeKinematics(const KernelInput& in,
                                                     const Real (&parameter)[3],
                                                     Kinematics<Shape, Real>& out) {
  out.det = CartesianGradient<Shape>(in.coords, parameter, out.gradient);
  TotalStrain(out.gradient, in.disp, out.strain);
}

// Field values, strains and stresses of one group of points.
template <class Isa>
struct PointGroup {
  Vector<Isa> volume;     // dV
  Vector<Isa> strain[6];  // mechanical
  Vector<Isa> stress[6];  // of the full material
};

template <int Count, class Real, int Size>
[[gnu::always_inline]] inline Real Interpolate(const Real (&n)[Count],
                                               const double (&values)[Size]) {
  Real sum = n[0] * values[0];
  for (int a = 1; a < Count; ++a) sum += n[a] * values[a];
  return sum;
}

template <class Isa>
[[gnu::always_inline]] inline void LoadParameter(const KernelInput& in, int first,
                                                 Vector<Isa> (&parameter)[3]) {
  for (int k = 0; k < 3; ++k) parameter[k] = Load<Isa>(in.rule.coordinate[k] + first);
}

// Field values at all points of the rule.
struct PointFields {
  alignas(64) double temperature[RulePadding];  // T
  alignas(64) double scaledLevel[RulePadding];  // k F
};

template <class Isa, class Shape>
[[gnu::always_inline]] inline void ComputeFields(const KernelInput& in, PointFields& out) {
  for (int first = 0; first < in.rule.numPoints; first += Isa::Lanes) {
    Vector<Isa> parameter[3], shape[Shape::Nodes], levelShape[Shape::LevelNodes];
    LoadParameter<Isa>(in, first, parameter);
    Shape::Values(parameter, shape);
    Shape::LevelValues(parameter, levelShape);
    Store<Isa>(out.temperature + first, Interpolate(shape, in.scalars));
    Store<Isa>(out.scaledLevel + first, in.slope * Interpolate(levelShape, in.phi));
  }
}

// Presence at all points, at `sharpness` times the slope. A loop of its own, in which the
// arctangents of several groups run at the same time.
template <class Isa>
[[gnu::always_inline]] inline void ComputePresence(const KernelInput& in, const PointFields& fields,
                                                   double sharpness,
                                                   double (&presence)[RulePadding]) {
  for (int first = 0; first < in.rule.numPoints; first += Isa::Lanes)
    Store<Isa>(presence + first, Presence<Isa>(sharpness * Load<Isa>(fields.scaledLevel + first)));
}

template <class Isa, class Shape, class Kin>
[[gnu::always_inline]] inline void ComputePointGroup(const KernelInput& in,
                                                     const PointFields& fields, int first,
                                                     const Kin& kin, PointGroup<Isa>& out) {
  MechanicalStrain(in.loadData, kin.strain, Load<Isa>(fields.temperature + first), out.strain);
  MaterialStress(in.stiffness, out.strain, out.stress);
  out.volume = Load<Isa>(in.rule.weight + first) * kin.det / Shape::VolumeDivisor;
}

// What the force and stiffness sums need, point by point. Where the gradients are constant the
// sums over the points stand in the one set instead.
template <class Isa, class Shape>
struct PointSets {
  static constexpr int MaxSets = Shape::ConstantGradient ? 1 : RoundUp<Isa>(Shape::MaxPoints);
  static constexpr int PaddedNodes = RoundUp<Isa>(Shape::Nodes);

  typedef double Gradients[MaxSets][3][PaddedNodes];

  int count;
  alignas(64) Gradients gradient;         // 0 behind the last node
  alignas(64) double weight[MaxSets];     // H dV
  alignas(64) double stress[6][MaxSets];  // times H dV
};

// Turns [node] vectors over points into [point] vectors over nodes.
template <class Isa, class Shape>
[[gnu::always_inline]] inline void StoreGradient(const Vector<Isa> (&gradient)[3][Shape::Nodes],
                                                 int first, PointSets<Isa, Shape>& out) {
  constexpr int L = Isa::Lanes;
  for (int i = 0; i < 3; ++i)
    for (int a = 0; a < Shape::Nodes; a += L) {
      Vector<Isa> row[L];
      for (int b = 0; b < L; ++b)
        row[b] = a + b < Shape::Nodes ? gradient[i][a + b] : Vector<Isa>{};
      Transpose<Isa>(row);
      for (int p = 0; p < L; ++p) Store<Isa>(out.gradient[first + p][i] + a, row[p]);
    }
}

template <class Isa, class Shape>
[[gnu::always_inline]] inline void CollectVarying(const KernelInput& in,
                                                  PointSets<Isa, Shape>& out) {
  PointFields fields;
  ComputeFields<Isa, Shape>(in, fields);
  alignas(64) double presence[RulePadding];
  ComputePresence<Isa>(in, fields, 1.0, presence);
  out.count = in.rule.numPoints;
  for (int first = 0; first < in.rule.numPoints; first += Isa::Lanes) {
    Vector<Isa> parameter[3];
    LoadParameter<Isa>(in, first, parameter);
    KinematicsOf<Isa, Shape> kin;
    ComputeKinematics(in, parameter, kin);
    StoreGradient<Isa, Shape>(kin.gradient, first, out);
    PointGroup<Isa> group;
    ComputePointGroup<Isa, Shape>(in, fields, first, kin, group);
    const Vector<Isa> weight = Load<Isa>(presence + first) * group.volume;
    Store<Isa>(out.weight + first, weight);
    for (int c = 0; c < 6; ++c) Store<Isa>(out.stress[c] + first, weight * group.stress[c]);
  }
}

template <class Isa, class Shape>
[[gnu::always_inline]] inline void CollectConstant(const KernelInput& in,
                                                   PointSets<Isa, Shape>& out) {
  PointFields fields;
  ComputeFields<Isa, Shape>(in, fields);
  alignas(64) double presence[RulePadding];
  ComputePresence<Isa>(in, fields, 1.0, presence);
  KinematicsOf<Isa, Shape> kin;
  ComputeKinematics(in, {}, kin);
  Vector<Isa> weightSum = {}, stressSum[6] = {};
  for (int first = 0; first < in.rule.numPoints; first += Isa::Lanes) {
    PointGroup<Isa> group;
    ComputePointGroup<Isa, Shape>(in, fields, first, kin, group);
    const Vector<Isa> weight = Load<Isa>(presence + first) * group.volume;
    weightSum += weight;
    for (int c = 0; c < 6; ++c) stressSum[c] += weight * group.stress[c];
  }
  out.count = 1;
  out.weight[0] = Sum<Isa>(weightSum);
  for (int c = 0; c < 6; ++c) out.stress[c][0] = Sum<Isa>(stressSum[c]);
  constexpr int L = Isa::Lanes;
  for (int i = 0; i < 3; ++i)
    for (int first = 0; first < Shape::Nodes; first += L) {
      Vector<Isa> row = {};
      for (int lane = 0; lane < L; ++lane)
        if (first + lane < Shape::Nodes) row[lane] = kin.gradient[i][first + lane];
      Store<Isa>(out.gradient[0][i] + first, row);
    }
}

// Never inlined, so that the forces and the matrix kernel run the same instructions and deliver the
// same forces to the last bit, whatever the compiler contracts.
template <class Isa, class Shape>
[[gnu::noinline]] void CollectPoints(const KernelInput& in, PointSets<Isa, Shape>& out) {
  if constexpr (Shape::ConstantGradient)
    CollectConstant<Isa, Shape>(in, out);
  else
    CollectVarying<Isa, Shape>(in, out);
}

// Of three vectors x, y, z, vector `Part` of the sequence x1 y1 z1 x2 y2 z2 ... The sequence is one
// of pairs: of three consecutive ones, (x, y) of an odd node, its z with x of the next, and (y, z)
// of that one. Three vectors of such pairs are made within 128 bits, then whole pairs are picked.
template <class Isa, int Part, int... Lane>
[[gnu::always_inline]] inline Vector<Isa> Interleave(Vector<Isa> x, Vector<Isa> y, Vector<Isa> z,
                                                     std::integer_sequence<int, Lane...>) {
  constexpr int L = Isa::Lanes;
  // Lane l of the result comes from pair type `Type(l)`, lane `From(l)` of its vector.
  struct Pick {
    static constexpr int Pair(int lane) { return (Part * L + lane) / 2; }
    static constexpr int Type(int lane) { return Pair(lane) % 3; }
    static constexpr int From(int lane) { return Pair(lane) / 3 * 2 + lane % 2; }
  };
  const Vector<Isa> xy = __builtin_shufflevector(x, y, (Lane % 2 == 0 ? Lane : L + Lane - 1)...);
  const Vector<Isa> zx = __builtin_shufflevector(z, x, (Lane % 2 == 0 ? Lane : L + Lane)...);
  const Vector<Isa> yz = __builtin_shufflevector(y, z, (Lane % 2 == 0 ? Lane + 1 : L + Lane)...);
  const Vector<Isa> first = __builtin_shufflevector(xy, zx,
                                                    (Pick::Type(Lane) == 0   ? Pick::From(Lane)
                                                     : Pick::Type(Lane) == 1 ? L + Pick::From(Lane)
                                                                             : Lane)...);
  return __builtin_shufflevector(first, yz,
                                 (Pick::Type(Lane) == 2 ? L + Pick::From(Lane) : Lane)...);
}

// Writes vector `Part` of the x, y, z of nodes first .. first + Lanes - 1 to their places in an
// element vector. What belongs to nodes behind the last one is not written.
template <class Isa, class Shape, int Part>
[[gnu::always_inline]] inline void StoreNodePart(Vector<Isa> x, Vector<Isa> y, Vector<Isa> z,
                                                 int first, double* vector) {
  constexpr int L = Isa::Lanes;
  constexpr int tail = 3 * (Shape::Nodes % L) - Part * L;  // places left in an incomplete block
  const Vector<Isa> rows = Interleave<Isa, Part>(x, y, z, std::make_integer_sequence<int, L>());
  double* out = vector + std::ptrdiff_t{3} * first + std::ptrdiff_t{Part} * L;
  if (tail >= L || first + L <= Shape::Nodes)
    StoreUnaligned<Isa>(out, rows);
  else
    for (int lane = 0; lane < tail; ++lane) out[lane] = rows[lane];
}

template <class Isa, class Shape>
[[gnu::always_inline]] inline void StoreNodes(Vector<Isa> x, Vector<Isa> y, Vector<Isa> z,
                                              int first, double* vector) {
  StoreNodePart<Isa, Shape, 0>(x, y, z, first, vector);
  StoreNodePart<Isa, Shape, 1>(x, y, z, first, vector);
  StoreNodePart<Isa, Shape, 2>(x, y, z, first, vector);
}

// f_a = sum over the points of H dV stress . grad N_a
template <class Isa, class Shape>
[[gnu::noinline]] void IntegrateForces(const PointSets<Isa, Shape>& points, ElementVector& forces) {
  constexpr int L = Isa::Lanes, Blocks = PointSets<Isa, Shape>::PaddedNodes / L;
  Vector<Isa> f[3][Blocks] = {};
  for (int p = 0; p < points.count; ++p) {
    const double xx = points.stress[0][p], yy = points.stress[1][p], zz = points.stress[2][p];
    const double xy = points.stress[3][p], yz = points.stress[4][p], xz = points.stress[5][p];
    for (int block = 0; block < Blocks; ++block) {
      const Vector<Isa> x = Load<Isa>(points.gradient[p][0] + block * L);
      const Vector<Isa> y = Load<Isa>(points.gradient[p][1] + block * L);
      const Vector<Isa> z = Load<Isa>(points.gradient[p][2] + block * L);
      f[0][block] += x * xx + y * xy + z * xz;
      f[1][block] += x * xy + y * yy + z * yz;
      f[2][block] += x * xz + y * yz + z * zz;
    }
  }
#pragma GCC unroll 5
  for (int block = 0; block < Blocks; ++block)
    StoreNodes<Isa, Shape>(f[0][block], f[1][block], f[2][block], block * L, forces);
  for (int i = 3 * Shape::Nodes; i < MaxElementDofs; ++i) forces[i] = 0.0;
}

// Stiffness block of a node pair from g[i][j] = sum over the points of H dV dN_a/dx_i dN_b/dx_j.
// The material is the same at all points, so B^T M B needs no more of them than these sums:
// block[i][i] = C_ii g_ii + shear of the two planes that contain i,
// block[i][j] = C_ij g_ij + G_ij g_ji.
template <class Real>
[[gnu::always_inline]] inline void NodePairStiffness(const MaterialConstants& c,
                                                     const Real (&g)[3][3], Real (&block)[3][3]) {
  const double gxy = 0.5 * c[6], gyz = 0.5 * c[7], gxz = 0.5 * c[8];
  block[0][0] = c[0] * g[0][0] + gxy * g[1][1] + gxz * g[2][2];
  block[1][1] = c[3] * g[1][1] + gxy * g[0][0] + gyz * g[2][2];
  block[2][2] = c[5] * g[2][2] + gxz * g[0][0] + gyz * g[1][1];
  block[0][1] = c[1] * g[0][1] + gxy * g[1][0];
  block[1][0] = c[1] * g[1][0] + gxy * g[0][1];
  block[0][2] = c[2] * g[0][2] + gxz * g[2][0];
  block[2][0] = c[2] * g[2][0] + gxz * g[0][2];
  block[1][2] = c[4] * g[1][2] + gyz * g[2][1];
  block[2][1] = c[4] * g[2][1] + gyz * g[1][2];
}

// Keeps what lies on or above the diagonal of the blocks of nodes a = first .. with node b.
template <class Isa>
[[gnu::always_inline]] inline void ClearBelowDiagonal(int first, int b,
                                                      Vector<Isa> (&block)[3][3]) {
  using Mask = typename VectorTypes<Isa>::Mask;
  Mask a;
  for (int lane = 0; lane < Isa::Lanes; ++lane) a[lane] = first + lane;
  const Mask above = a < b;
  const Mask notBelow = a <= b;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      block[i][j] = reinterpret_cast<Vector<Isa>>(reinterpret_cast<Mask>(block[i][j]) &
                                                  (i <= j ? notBelow : above));
}

// Blocks of nodes a = first .. first + Lanes - 1, in the lanes, with node b.
template <class Isa, class Shape>
[[gnu::always_inline]] inline void AddNodePairs(
    const MaterialConstants& stiffness, const PointSets<Isa, Shape>& points,
    const typename PointSets<Isa, Shape>::Gradients& weighted, int first, int b,
    ElementMatrix& matrix) {
  Vector<Isa> sum[3][3] = {};
  for (int p = 0; p < points.count; ++p)
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        sum[i][j] += Load<Isa>(points.gradient[p][i] + first) * weighted[p][j][b];
  Vector<Isa> block[3][3];
  NodePairStiffness(stiffness, sum, block);
  if (first + Isa::Lanes > b) ClearBelowDiagonal<Isa>(first, b, block);
#pragma GCC unroll 3
  for (int j = 0; j < 3; ++j)
    StoreNodes<Isa, Shape>(block[0][j], block[1][j], block[2][j], first,
                           matrix + std::ptrdiff_t{MaxElementDofs} * (3 * b + j));
}

// The same sums for all pairs a <= b. matrix holds zeros.
template <class Isa, class Shape>
[[gnu::noinline]] void IntegrateMatrix(const KernelInput& in, const PointSets<Isa, Shape>& points,
                                       ElementMatrix& matrix) {
  alignas(64) typename PointSets<Isa, Shape>::Gradients weighted;
  for (int p = 0; p < points.count; ++p)
    for (int i = 0; i < 3; ++i)
      for (int a = 0; a < points.PaddedNodes; a += Isa::Lanes)
        Store<Isa>(weighted[p][i] + a, Load<Isa>(points.gradient[p][i] + a) * points.weight[p]);
  for (int b = 0; b < Shape::Nodes; ++b)
    for (int first = 0; first <= b; first += Isa::Lanes)
      AddNodePairs<Isa, Shape>(in.stiffness, points, weighted, first, b, matrix);
}

template <class Isa, class Shape>
void KernelForces(const KernelInput& in, ElementVector& forces) {
  PointSets<Isa, Shape> points;
  CollectPoints(in, points);
  IntegrateForces(points, forces);
}

template <class Isa, class Shape>
void KernelMatrix(const KernelInput& in, ElementVector& forces, ElementMatrix& matrix) {
  for (double& entry : matrix) entry = 0.0;
  PointSets<Isa, Shape> points;
  CollectPoints(in, points);
  IntegrateForces(points, forces);
  IntegrateMatrix(in, points, matrix);
}

// The smooth presence enters its energy and stress squared, the sharp presence enters once:
// deliberate.
template <class Isa>
[[gnu::always_inline]] inline void AddResponse(const PointGroup<Isa>& group, Vector<Isa> smooth,
                                               Vector<Isa> sharp,
                                               Vector<Isa> (&sum)[NumResponseSums]) {
  const Vector<Isa>(&s)[6] = group.stress;
  const Vector<Isa>(&e)[6] = group.strain;
  const Vector<Isa> energy = EnergyDensity(e, s);
  const Vector<Isa> mises = VonMisesStress<Isa>(s);
  const Vector<Isa> smoothVolume = smooth * group.volume;
  const Vector<Isa> sharpVolume = sharp * group.volume;
  sum[SumVolume] += group.volume;
  sum[SumSmoothVolume] += smoothVolume;
  sum[SumSharpVolume] += sharpVolume;
  sum[SumSmoothEnergy] += energy * smooth * smoothVolume;
  sum[SumSmoothStress] += mises * smooth * smoothVolume;
  sum[SumEnergy] += energy * sharpVolume;
  sum[SumStress] += mises * sharpVolume;
  sum[SumMeanStress] += (s[0] + s[1] + s[2]) / 3.0 * sharpVolume;
  sum[SumMeanStrain] += (e[0] + e[1] + e[2]) / 3.0 * sharpVolume;
}

template <class Isa, class Shape>
void KernelResponse(const KernelInput& in, ElementResponse& response) {
  PointFields fields;
  ComputeFields<Isa, Shape>(in, fields);
  alignas(64) double smooth[RulePadding], sharp[RulePadding];
  ComputePresence<Isa>(in, fields, 1.0, smooth);
  ComputePresence<Isa>(in, fields, SharpSlope, sharp);
  KinematicsOf<Isa, Shape> kin;
  if constexpr (Shape::ConstantGradient) ComputeKinematics(in, {}, kin);
  Vector<Isa> sum[NumResponseSums] = {};
  for (int first = 0; first < in.rule.numPoints; first += Isa::Lanes) {
    if constexpr (!Shape::ConstantGradient) {
      Vector<Isa> parameter[3];
      LoadParameter<Isa>(in, first, parameter);
      ComputeKinematics(in, parameter, kin);
    }
    PointGroup<Isa> group;
    ComputePointGroup<Isa, Shape>(in, fields, first, kin, group);
    AddResponse<Isa>(group, Load<Isa>(smooth + first), Load<Isa>(sharp + first), sum);
  }
  for (int r = 0; r < NumResponseSums; ++r) response[r] = Sum<Isa>(sum[r]);
}
