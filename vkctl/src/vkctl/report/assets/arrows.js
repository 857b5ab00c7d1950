// Arrows as triangles: shaft and head around each vector.

const SIDES = 10;
const SHAFT = 0.011, HEAD = 0.034, HEAD_LENGTH = 0.11; // of the size that is given

// Corners of arrows from `origins` along `vectors`, both flat; `size` sets how thick they are.
function arrows(origins, vectors, size) {
  const corners = [];
  for (let i = 0; i < origins.length; i += 3) {
    const along = vectors.slice(i, i + 3);
    const length = Math.hypot(...along);
    if (!(length > 0)) continue;
    const way = unit(along);
    const side = unit(cross(way, Math.abs(way[0]) < 0.7 ? [1, 0, 0] : [0, 1, 0]));
    const over = cross(way, side);
    const head = Math.min(HEAD_LENGTH * size, 0.6 * length);
    const at = (distance, radius, angle) => [0, 1, 2].map((k) => origins[i + k] + distance * way[k]
      + radius * (Math.cos(angle) * side[k] + Math.sin(angle) * over[k]));
    const neck = length - head;
    for (let n = 0; n < SIDES; n++) {
      const [a, b] = [n, n + 1].map((m) => (2 * Math.PI * m) / SIDES);
      const [s, h] = [SHAFT * size, HEAD * size];
      corners.push(
        ...at(0, s, a), ...at(0, s, b), ...at(neck, s, a),
        ...at(0, s, b), ...at(neck, s, b), ...at(neck, s, a),
        ...at(neck, h, a), ...at(neck, h, b), ...at(length, 0, a),
        ...at(neck, 0, a), ...at(neck, h, b), ...at(neck, h, a));
    }
  }
  return new Float32Array(corners);
}
