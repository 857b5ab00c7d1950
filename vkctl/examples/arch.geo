// Half of an arch's space: 40 x 40, 1 thick, x from the middle to the foot, in cells of 0.5, one across.
nx = 40; ny = 40;
Point(1) = {0, 0, 0};
line[] = Extrude {nx, 0, 0} { Point{1}; Layers{2 * nx}; };
face[] = Extrude {0, ny, 0} { Curve{line[1]}; Layers{2 * ny}; Recombine; };
body[] = Extrude {0, 0, 1} { Surface{face[1]}; Layers{1}; Recombine; };
Physical Volume("body") = {body[1]};
