"""What every room uses and what knows nothing of the problem."""
