"""Optimised parts that are judged by other means than the loop that made them."""
