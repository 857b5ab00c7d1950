"""When repeated runs have settled, unless it is said otherwise."""

TOLERANCE = 1e-3  # largest change of a round, a part of the largest value
MOST_ROUNDS = 200
