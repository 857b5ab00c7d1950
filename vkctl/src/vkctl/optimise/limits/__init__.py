"""Limits and several goals: what they change in a step of the loop."""
