"""The part over the steps: a .pvd series of its surface, and an animation.

`frames` draws a step, `beside` starts the process that does so while the loop goes on, `painter`
is what runs there.
"""

from .frames import shown_steps, write_animation, write_part_series

__all__ = ["shown_steps", "write_animation", "write_part_series"]
