"""The working directory: its files, the model and the results in memory."""
