// Half of a beam on two supports: 60 x 20 cells of size 1, one cell thick, cut at x = 0.
nx = 60; ny = 20;
Point(1) = {0, 0, 0};
line[] = Extrude {nx, 0, 0} { Point{1}; Layers{nx}; };
face[] = Extrude {0, ny, 0} { Curve{line[1]}; Layers{ny}; Recombine; };
body[] = Extrude {0, 0, 1} { Surface{face[1]}; Layers{1}; Recombine; };
Physical Volume("body") = {body[1]};
