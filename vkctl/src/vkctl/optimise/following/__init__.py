"""Loads that change with the design: weight, and heat where material is."""
