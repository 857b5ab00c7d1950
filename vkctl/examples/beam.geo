// Beam of 24 x 12 x 8, x from the wall to the tip, in cells of 2/3.
Point(1) = {0, 0, 0};
line[] = Extrude {24, 0, 0} { Point{1}; Layers{36}; };
face[] = Extrude {0, 12, 0} { Curve{line[1]}; Layers{18}; Recombine; };
body[] = Extrude {0, 0, 8} { Surface{face[1]}; Layers{12}; Recombine; };
