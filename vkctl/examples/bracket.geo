// Bracket in mm: a foot with four bolt holes and a block with a pin hole.
SetFactory("OpenCASCADE");
Box(1) = {0, 0, 0, 120, 60, 12};
Box(2) = {20, 10, 12, 80, 40, 58};
Cylinder(3) = {60, 0, 48, 0, 60, 0, 10};
Cylinder(4) = {10, 10, -1, 0, 0, 14, 5};
Cylinder(5) = {110, 10, -1, 0, 0, 14, 5};
Cylinder(6) = {10, 50, -1, 0, 0, 14, 5};
Cylinder(7) = {110, 50, -1, 0, 0, 14, 5};
BooleanUnion(8) = { Volume{1}; Delete; }{ Volume{2}; Delete; };
BooleanDifference(9) = { Volume{8}; Delete; }{ Volume{3, 4, 5, 6, 7}; Delete; };
