"""Starting the solver, following it, and telling how it ended."""
