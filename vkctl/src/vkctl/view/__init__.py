"""Results and the part as grids, pictures and files for other programs."""
