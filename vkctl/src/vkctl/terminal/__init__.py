"""What the commands share on the terminal."""
