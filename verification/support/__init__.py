"""What the cases share: meshes, finite element arithmetic in numpy, the solver, the page."""
