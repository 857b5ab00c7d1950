// Disc around a hub of radius 6, out to 20, 1 thick: 42 cells outwards, 180 around, one across.
inner = 6; outer = 20;
Point(1) = {inner, 0, 0};
spoke[] = Extrude {outer - inner, 0, 0} { Point{1}; Layers{42}; };
side = spoke[1]; faces[] = {};
For k In {1:4}
  turned[] = Extrude {{0, 0, 1}, {0, 0, 0}, Pi / 2} { Curve{side}; Layers{45}; Recombine; };
  side = turned[0]; faces[] += turned[1];
EndFor
Coherence;
body[] = Extrude {0, 0, 1} { Surface{faces[]}; Layers{1}; Recombine; };
