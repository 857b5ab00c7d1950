"""What the page says before its cases."""

TEXT = """
# Verification

`python verification/publish.py` runs every case below through `vk_rund` and writes this page with
its pictures, from a commit without changes. `python verification/run.py`, which `./check` calls,
runs the cases again (those that say "when publishing only" excepted), writes nothing, and fails
when a comparison is outside its bound or the page tells another value. The bounds are part of the
cases. Where an answer is exact they follow from single precision; for discretisation errors they
hold a mesh to what it gave when the case was made, with a margin, so that they guard against
change and prove nothing by themselves: the errors are to be read beside them. Shapes, quadrature,
loads and stress recovery of the cases are written in numpy, apart from the solver's.

Three things hold for all cases:

- **Presence.** An element without a level field has the level 1, and its stiffness carries the
  factor H(1) = (atan(500) / pi + 0.5) (1 - 0.001) + 0.001 = 0.999364. Where a case gives a modulus
  E, the model holds E / H(1), so that E is what acts.
- **Single precision.** Coordinates, loads, prescribed values and saved displacements are
  float32, with seven digits. Coordinates are rounded before references are computed. Errors
  below 1e-6 are shown as such and not with digits.
- **Two runs.** A solve ends when the largest residual is 1e-5 of the largest load. Each case is
  run a second time from its saved displacements, which solves for the remainder, so that the
  tolerance leaves no trace in the numbers (states of yielding and compression-only materials
  change with every run; those two cases count their runs).

"Error" is relative to the reference where both numbers are given, otherwise it is what the case
says.
"""
