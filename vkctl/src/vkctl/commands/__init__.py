"""One file a command: its arguments, one call, what is printed."""
