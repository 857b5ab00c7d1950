// The three element shapes: nodes, shape functions N and their derivatives by the parameters.
// Written for any arithmetic type: a double, or a vector that holds one value per point.
//
// Each shape has: Nodes; LevelNodes, the nodes that carry the level field; MaxPoints, of its
// largest rule; ConstantGradient, true where the gradients are the same at all points;
// VolumeDivisor, of weight times Jacobian determinant; Depends(k, a), whether N_a depends on
// parameter k; Values; LevelValues, the functions of the level field; Derivatives
// [parameter][node], only where Depends.
#pragma once

// 4-node tetrahedron: N = L1, L2, L3, L4, with L1 = 1 - L2 - L3 - L4.
struct Tet4 {
  static constexpr int Nodes = 4;
  static constexpr int LevelNodes = 4;
  static constexpr int MaxPoints = 8;
  static constexpr bool ConstantGradient = true;
  static constexpr double VolumeDivisor = 6.0;

  [[gnu::always_inline]] static constexpr bool Depends(int k, int a) {
    return a == 0 || a == k + 1;
  }

  template <class Real>
  [[gnu::always_inline]] static inline void Values(const Real (&p)[3], Real (&n)[Nodes]) {
    n[0] = 1.0 - p[0] - p[1] - p[2];
    n[1] = p[0];
    n[2] = p[1];
    n[3] = p[2];
  }

  template <class Real>
  [[gnu::always_inline]] static inline void LevelValues(const Real (&p)[3], Real (&n)[LevelNodes]) {
    Values(p, n);
  }

  template <class Real>
  [[gnu::always_inline]] static inline void Derivatives(const Real (&)[3], Real (&d)[3][Nodes]) {
    for (int k = 0; k < 3; ++k) {
      d[k][0] = Real{} - 1.0;
      d[k][k + 1] = Real{} + 1.0;
    }
  }
};

// 8-node hexahedron: N_a = (1 + s_a xi)(1 + t_a eta)(1 + u_a zeta) / 8.
struct Hex8 {
  static constexpr int Nodes = 8;
  static constexpr int LevelNodes = 8;
  static constexpr int MaxPoints = 27;
  static constexpr bool ConstantGradient = false;
  static constexpr double VolumeDivisor = 1.0;

  // s, t, u: node a lies on the side +1 of the direction.
  static constexpr bool Upper[3][Nodes] = {{false, true, true, false, false, true, true, false},
                                           {false, false, true, true, false, false, true, true},
                                           {false, false, false, false, true, true, true, true}};

  [[gnu::always_inline]] static constexpr bool Depends(int, int) { return true; }

  // 1 - p and 1 + p of each direction.
  template <class Real>
  [[gnu::always_inline]] static inline void Factors(const Real (&p)[3], Real (&f)[3][2]) {
    for (int k = 0; k < 3; ++k) {
      f[k][0] = 1.0 - p[k];
      f[k][1] = 1.0 + p[k];
    }
  }

  template <class Real>
  [[gnu::always_inline]] static inline void Values(const Real (&p)[3], Real (&n)[Nodes]) {
    Real f[3][2];
    Factors(p, f);
    for (int a = 0; a < Nodes; ++a)
      n[a] = (0.125 * f[1][Upper[1][a]] * f[2][Upper[2][a]]) * f[0][Upper[0][a]];
  }

  template <class Real>
  [[gnu::always_inline]] static inline void LevelValues(const Real (&p)[3], Real (&n)[LevelNodes]) {
    Values(p, n);
  }

  template <class Real>
  [[gnu::always_inline]] static inline void Derivatives(const Real (&p)[3], Real (&d)[3][Nodes]) {
    Real f[3][2];
    Factors(p, f);
    for (int k = 0; k < 3; ++k) {
      const int i = (k + 1) % 3, j = (k + 2) % 3;
      for (int a = 0; a < Nodes; ++a)
        d[k][a] = (Upper[k][a] ? 0.125 : -0.125) * f[i][Upper[i][a]] * f[j][Upper[j][a]];
    }
  }
};

// 10-node tetrahedron: corners N = L(2L - 1), mid-edge nodes N = 4 La Lb.
struct Tet10 {
  static constexpr int Nodes = 10;
  static constexpr int LevelNodes = 4;  // deliberately linear, from the corners
  static constexpr int MaxPoints = 8;
  static constexpr bool ConstantGradient = false;
  static constexpr double VolumeDivisor = 6.0;

  static constexpr int Corners = 4;
  static constexpr int Edge[6][2] = {{0, 1}, {1, 2}, {0, 2}, {0, 3}, {1, 3}, {2, 3}};

  // L1 depends on all three parameters, L2, L3, L4 on one each.
  [[gnu::always_inline]] static constexpr bool CornerDepends(int k, int corner) {
    return corner == 0 || corner == k + 1;
  }

  [[gnu::always_inline]] static constexpr bool Depends(int k, int a) {
    if (a < Corners) return CornerDepends(k, a);
    return CornerDepends(k, Edge[a - Corners][0]) || CornerDepends(k, Edge[a - Corners][1]);
  }

  template <class Real>
  [[gnu::always_inline]] static inline void LevelValues(const Real (&p)[3], Real (&l)[LevelNodes]) {
    Tet4::Values(p, l);
  }

  template <class Real>
  [[gnu::always_inline]] static inline void Values(const Real (&p)[3], Real (&n)[Nodes]) {
    Real l[Corners];
    Tet4::Values(p, l);
    for (int a = 0; a < Corners; ++a) n[a] = l[a] * (2.0 * l[a] - 1.0);
    for (int e = 0; e < 6; ++e) n[Corners + e] = 4.0 * l[Edge[e][0]] * l[Edge[e][1]];
  }

  // dL/dp is -1 for L1 and 1 or 0 for the others.
  template <class Real>
  [[gnu::always_inline]] static inline void Derivatives(const Real (&p)[3], Real (&d)[3][Nodes]) {
    Real l[Corners];
    Tet4::Values(p, l);
    for (int k = 0; k < 3; ++k) {
      d[k][0] = 1.0 - 4.0 * l[0];
      d[k][k + 1] = 4.0 * l[k + 1] - 1.0;
      for (int e = 0; e < 6; ++e) {
        const int a = Edge[e][0], b = Edge[e][1];
        Real& out = d[k][Corners + e];
        if (a == 0 && b == k + 1)
          out = 4.0 * (l[0] - l[b]);
        else if (a == 0)
          out = -4.0 * l[b];
        else if (a == k + 1)
          out = 4.0 * l[b];
        else if (b == k + 1)
          out = 4.0 * l[a];
      }
    }
  }
};
