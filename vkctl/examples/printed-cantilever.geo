// The short cantilever in finer cells: 32 x 20, 1 thick, cells of 1/3, one across.
nx = 32; ny = 20;
Point(1) = {0, 0, 0};
line[] = Extrude {nx, 0, 0} { Point{1}; Layers{3 * nx}; };
face[] = Extrude {0, ny, 0} { Curve{line[1]}; Layers{3 * ny}; Recombine; };
body[] = Extrude {0, 0, 1} { Surface{face[1]}; Layers{1}; Recombine; };
Physical Volume("body") = {body[1]};
