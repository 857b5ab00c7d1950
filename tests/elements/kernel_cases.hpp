// Elements for the kernel tests, and one way to call the kernels of every instruction set.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "elements/fekernel.hpp"
#include "elements/kernel_input.hpp"
#include "elements/kernel_reference.hpp"
#include "platform/processor.hpp"
#include "run/services/vkcore.hpp"

// Vectors of eight doubles made of the registers that there are: the lane logic of the widest
// instruction set, testable on any processor.
struct IsaWide {
  static constexpr int Lanes = 8;
};

namespace cases {

using reference::Element;
using reference::Shape;

enum class Variant { Public, Portable, Avx2, Avx512, Wide };

inline bool Available(Variant v) {
  if (v == Variant::Avx2) return PLATFORM_INSTRUCTIONSET() != InstructionSet::Portable;
  return v != Variant::Avx512 || PLATFORM_INSTRUCTIONSET() == InstructionSet::Avx512;
}

inline std::vector<Variant> AvailableVariants() {
  std::vector<Variant> out;
  for (Variant v :
       {Variant::Public, Variant::Portable, Variant::Avx2, Variant::Avx512, Variant::Wide})
    if (Available(v)) out.push_back(v);
  return out;
}

inline std::string NameOf(Variant v) {
  const char* names[] = {"Public", "Portable", "Avx2", "Avx512", "Wide"};
  return names[static_cast<int>(v)];
}

inline std::string NameOf(Shape s) {
  const char* names[] = {"Tet4", "Hex8", "Tet10"};
  return names[static_cast<int>(s)];
}

inline double Slope() { return static_cast<double>(VKCORE::RunOptions.MatSlopeFactor); }

// The kernels of one instruction set, without the dispatch.
void IsaForces(Variant v, const Element& e, ElementVector& forces);
void IsaMatrix(Variant v, const Element& e, ElementVector& forces, ElementMatrix& matrix);
void IsaResponse(Variant v, const Element& e, ElementResponse& response);

inline void Forces(Variant v, const Element& e, ElementVector& f) {
  if (v != Variant::Public) return IsaForces(v, e, f);
  switch (e.shape) {
    case Shape::Tet4:
      return FEKERNEL_TET4_FORCES(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f);
    case Shape::Hex8:
      return FEKERNEL_HEX8_FORCES(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f);
    case Shape::Tet10:
      return FEKERNEL_TET10_FORCES(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f);
  }
}

inline void Matrix(Variant v, const Element& e, ElementVector& f, ElementMatrix& k) {
  if (v != Variant::Public) return IsaMatrix(v, e, f, k);
  switch (e.shape) {
    case Shape::Tet4:
      return FEKERNEL_TET4_MATRIX(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f,
                                  k);
    case Shape::Hex8:
      return FEKERNEL_HEX8_MATRIX(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f,
                                  k);
    case Shape::Tet10:
      return FEKERNEL_TET10_MATRIX(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, f,
                                   k);
  }
}

inline void Response(Variant v, const Element& e, ElementResponse& r) {
  if (v != Variant::Public) return IsaResponse(v, e, r);
  switch (e.shape) {
    case Shape::Tet4:
      return FEKERNEL_TET4_RESPONSE(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, r);
    case Shape::Hex8:
      return FEKERNEL_HEX8_RESPONSE(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, r);
    case Shape::Tet10:
      return FEKERNEL_TET10_RESPONSE(e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars,
                                     r);
  }
}

inline constexpr double Tet4Coords[12] = {0.1, -0.2, 0.3, 1.2, 0.1, 0.2,
                                          0.3, 1.3,  0.1, 0.2, 0.3, 1.1};

inline constexpr double Hex8Coords[24] = {0.0,  0.0,  0.0, 1.0, 0.1, -0.1, 1.1, 1.2,
                                          0.1,  -0.1, 1.0, 0.2, 0.1, 0.0,  1.0, 1.2,
                                          -0.1, 1.1,  0.9, 1.1, 1.3, 0.1,  0.9, 0.8};

inline constexpr int Edges[6][2] = {{0, 1}, {1, 2}, {0, 2}, {0, 3}, {1, 3}, {2, 3}};

// Six mid-edge nodes halfway.
inline void StraightenEdges(Element& e) {
  for (int edge = 0; edge < 6; ++edge)
    for (int i = 0; i < 3; ++i)
      e.coords[3 * (4 + edge) + i] =
          0.5 * (e.coords[3 * Edges[edge][0] + i] + e.coords[3 * Edges[edge][1] + i]);
}

// Skewed geometry without symmetry, curved edges for the quadratic tetrahedron.
inline void SetDistortedGeometry(Element& e, std::mt19937& random) {
  std::uniform_real_distribution<double> unit(-1, 1);
  const double* base = e.shape == Shape::Hex8 ? Hex8Coords : Tet4Coords;
  const int given = e.shape == Shape::Hex8 ? 24 : 12;
  for (int i = 0; i < given; ++i) e.coords[i] = base[i] + 0.03 * unit(random);
  if (e.shape != Shape::Tet10) return;
  StraightenEdges(e);
  for (int i = 12; i < 30; ++i) e.coords[i] += 0.03 * unit(random);
}

// C of an orthotropic material with nine independent constants, then twice the shear moduli.
inline constexpr double Orthotropic[9] = {11.0, 3.0, 2.0, 13.0, 4.0, 9.0, 6.0, 7.0, 8.0};

// E = 7, nu = 0.3.
inline constexpr double Isotropic[9] = {7 * 0.7 / (0.4 * 1.3),
                                        7 * 0.3 / (0.4 * 1.3),
                                        7 * 0.3 / (0.4 * 1.3),
                                        7 * 0.7 / (0.4 * 1.3),
                                        7 * 0.3 / (0.4 * 1.3),
                                        7 * 0.7 / (0.4 * 1.3),
                                        7 / 1.3,
                                        7 / 1.3,
                                        7 / 1.3};

inline void SetStiffness(Element& e, const double (&constants)[9]) {
  for (int i = 0; i < 9; ++i) e.stiffness[i] = constants[i];
}

// A distorted element with fields of both signs. order 2: all levels below the switch; order 3:
// levels around zero, where the presence varies most.
inline Element Distorted(Shape shape, int order, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> unit(-1, 1);
  Element e;
  e.shape = shape;
  SetDistortedGeometry(e, random);
  SetStiffness(e, Orthotropic);
  const double load[7] = {20.0, 1e-3, 2e-3, -1.5e-3, 1e-3, -2e-3, 3e-3};
  for (int i = 0; i < 7; ++i) e.loadData[i] = load[i];
  for (double& u : e.disp) u = 0.01 * unit(random);
  for (double& t : e.scalars) t = 10 * unit(random);
  for (double& p : e.phi) p = order == 3 ? 0.003 * unit(random) : -0.3 + 0.05 * unit(random);
  return e;
}

inline void RemoveFreeStrains(Element& e) {
  for (double& l : e.loadData) l = 0;
}

inline double Largest(const double* v, int n) {
  double largest = 0;
  for (int i = 0; i < n; ++i) largest = std::max(largest, std::fabs(v[i]));
  return largest;
}

// Entry (i, j) of the symmetric matrix of which the upper triangle is stored.
inline double Symmetric(const ElementMatrix& k, int i, int j) {
  return i <= j ? k[i + 30 * j] : k[j + 30 * i];
}

}  // namespace cases
