// L-bracket of 100 x 100 mm with arms of 40 mm, 5 mm thick: hexahedra of 2.5 mm.
arm = 40; length = 100; h = 2.5;
Point(1) = {0, 0, 0};
row[] = Extrude {arm, 0, 0} { Point{1}; Layers{arm / h}; };
corner[] = Extrude {0, arm, 0} { Curve{row[1]}; Layers{arm / h}; Recombine; };
// Curve 2 is the upper side of the corner, curve 4 its right side.
upright[] = Extrude {0, length - arm, 0} { Curve{2}; Layers{(length - arm) / h}; Recombine; };
across[] = Extrude {length - arm, 0, 0} { Curve{4}; Layers{(length - arm) / h}; Recombine; };
body[] = Extrude {0, 0, 5} {
  Surface{corner[1], upright[1], across[1]}; Layers{2}; Recombine;
};
