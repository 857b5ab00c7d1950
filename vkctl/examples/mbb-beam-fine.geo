// The half of a beam in finer cells: 60 x 20, 1 thick, cells of 1/2, one across, cut at x = 0.
nx = 60; ny = 20;
Point(1) = {0, 0, 0};
line[] = Extrude {nx, 0, 0} { Point{1}; Layers{2 * nx}; };
face[] = Extrude {0, ny, 0} { Curve{line[1]}; Layers{2 * ny}; Recombine; };
body[] = Extrude {0, 0, 1} { Surface{face[1]}; Layers{1}; Recombine; };
Physical Volume("body") = {body[1]};
