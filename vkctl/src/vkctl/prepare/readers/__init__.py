"""Parts from files, one reader a format."""
