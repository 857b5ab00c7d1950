// The laws at an integration point, the same for all shapes: geometry, strain, stress, presence.
// Real is a double or a vector that holds one value per point. Components of strain and stress run
// xx, yy, zz, xy, yz, xz; shear strains are engineering strains.
#pragma once

#include "elements/kernel_constants.hpp"
#include "elements/kernel_input.hpp"
#include "elements/kernel_vector.hpp"

// J[k][i] = dx_i/dp_k = sum of dN_a/dp_k x_ai; returns det J and, by cofactors, inverse J[i][k].
template <class Shape, class Real>
[[gnu::always_inline]] inline Real InvertJacobian(const ElementVector& coords,
                                                  const Real (&derivative)[3][Shape::Nodes],
                                                  Real (&inverse)[3][3]) {
  Real j[3][3] = {};
  for (int a = 0; a < Shape::Nodes; ++a)
    for (int k = 0; k < 3; ++k)
      if (Shape::Depends(k, a))
        for (int i = 0; i < 3; ++i) j[k][i] += derivative[k][a] * coords[3 * a + i];

  Real cofactor[3][3];  // [k][i], of j[k][i]
  for (int k = 0; k < 3; ++k)
    for (int i = 0; i < 3; ++i) {
      const int k1 = (k + 1) % 3, k2 = (k + 2) % 3, i1 = (i + 1) % 3, i2 = (i + 2) % 3;
      cofactor[k][i] = j[k1][i1] * j[k2][i2] - j[k1][i2] * j[k2][i1];
    }
  const Real det = j[0][0] * cofactor[0][0] + j[0][1] * cofactor[0][1] + j[0][2] * cofactor[0][2];
  const Real scale = 1.0 / det;
  for (int i = 0; i < 3; ++i)
    for (int k = 0; k < 3; ++k) inverse[i][k] = cofactor[k][i] * scale;
  return det;
}

// gradient[i][a] = dN_a/dx_i = sum of dp_k/dx_i dN_a/dp_k; returns det J.
template <class Shape, class Real>
[[gnu::always_inline]] inline Real CartesianGradient(const ElementVector& coords,
                                                     const Real (&parameter)[3],
                                                     Real (&gradient)[3][Shape::Nodes]) {
  Real derivative[3][Shape::Nodes];
  Shape::Derivatives(parameter, derivative);
  Real inverse[3][3];
  const Real det = InvertJacobian<Shape>(coords, derivative, inverse);
  for (int a = 0; a < Shape::Nodes; ++a)
    for (int i = 0; i < 3; ++i) {
      Real sum = {};
      for (int k = 0; k < 3; ++k)
        if (Shape::Depends(k, a)) sum += inverse[i][k] * derivative[k][a];
      gradient[i][a] = sum;
    }
  return det;
}

// Strain of the displacements, from h[i][j] = du_i/dx_j = sum of u_ai dN_a/dx_j.
template <int Nodes, class Real>
[[gnu::always_inline]] inline void TotalStrain(const Real (&gradient)[3][Nodes],
                                               const ElementVector& disp, Real (&strain)[6]) {
  Real h[3][3] = {};
  for (int a = 0; a < Nodes; ++a)
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) h[i][j] += gradient[j][a] * disp[3 * a + i];
  for (int i = 0; i < 3; ++i) strain[i] = h[i][i];
  strain[3] = h[0][1] + h[1][0];
  strain[4] = h[1][2] + h[2][1];
  strain[5] = h[0][2] + h[2][0];
}

// What the material carries: e_i - alpha_i T - e0_i. Shears have no thermal and no initial part.
template <class Real, class TotalReal>
[[gnu::always_inline]] inline void MechanicalStrain(const MaterialLoadData& loadData,
                                                    const TotalReal (&total)[6], Real temperature,
                                                    Real (&strain)[6]) {
  for (int i = 0; i < 3; ++i) {
    strain[i] = total[i] - loadData[1 + i] * temperature - loadData[4 + i];
    strain[3 + i] = Real{} + total[3 + i];
  }
}

// Linear law. The shear slots hold twice the shear modulus.
template <class Real>
[[gnu::always_inline]] inline void MaterialStress(const MaterialConstants& c, const Real (&e)[6],
                                                  Real (&s)[6]) {
  s[0] = c[0] * e[0] + c[1] * e[1] + c[2] * e[2];
  s[1] = c[1] * e[0] + c[3] * e[1] + c[4] * e[2];
  s[2] = c[2] * e[0] + c[4] * e[1] + c[5] * e[2];
  for (int i = 3; i < 6; ++i) s[i] = (0.5 * c[3 + i]) * e[i];
}

// Presence of the material at the scaled level k F: a step from PresenceFloor to 1.
template <class Isa>
[[gnu::always_inline]] inline Vector<Isa> Presence(Vector<Isa> scaledLevel) {
  return (Arctangent<Isa>(scaledLevel) * InversePi + 0.5) * PresenceSpan + PresenceFloor;
}

// 0.5 stress . strain
template <class Real>
[[gnu::always_inline]] inline Real EnergyDensity(const Real (&e)[6], const Real (&s)[6]) {
  return 0.5 * (e[0] * s[0] + e[1] * s[1] + e[2] * s[2] + e[3] * s[3] + e[4] * s[4] + e[5] * s[5]);
}

template <class Isa>
[[gnu::always_inline]] inline Vector<Isa> VonMisesStress(const Vector<Isa> (&s)[6]) {
  const Vector<Isa> xy = s[0] - s[1], yz = s[1] - s[2], zx = s[2] - s[0];
  return SquareRoot<Isa>(
      3.0 * ((xy * xy + yz * yz + zx * zx) / 6.0 + s[3] * s[3] + s[4] * s[4] + s[5] * s[5]));
}
