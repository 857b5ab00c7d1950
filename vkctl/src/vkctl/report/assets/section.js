// The inside where a plane cuts it: each tetrahedron gives one triangle or two.

const OTHERS = [[1, 2, 3], [0, 3, 2], [0, 1, 3], [0, 2, 1]];

// Triangles of the plane "axis = at", as places and values at their corners.
function section(places, values, tetrahedra, axis, at) {
  const found = { places: [], values: [] };
  const add = (a, b) => {
    const from = places[3 * a + axis] - at;
    const share = from / (from - (places[3 * b + axis] - at));
    for (let k = 0; k < 3; k++) {
      const start = places[3 * a + k];
      found.places.push(start + share * (places[3 * b + k] - start));
    }
    found.values.push(values[a] + share * (values[b] - values[a]));
  };
  const corner = new Array(4);
  for (let t = 0; t < tetrahedra.length; t += 4) {
    let above = 0;
    for (let c = 0; c < 4; c++) {
      corner[c] = tetrahedra[t + c];
      if (places[3 * corner[c] + axis] > at) above |= 1 << c;
    }
    if (above === 0 || above === 15) continue;
    const up = [0, 1, 2, 3].filter((c) => above & (1 << c));
    if (up.length === 2) {
      const down = [0, 1, 2, 3].filter((c) => !(above & (1 << c)));
      const [a, b] = up.map((c) => corner[c]);
      const [c, d] = down.map((k) => corner[k]);
      for (const [from, to] of [[a, c], [b, c], [b, d], [a, c], [b, d], [a, d]]) add(from, to);
    } else {
      const alone = up.length === 1 ? up[0] : [0, 1, 2, 3].find((c) => !(above & (1 << c)));
      for (const other of OTHERS[alone]) add(corner[alone], corner[other]);
    }
  }
  return { places: new Float32Array(found.places), values: new Float32Array(found.values) };
}
