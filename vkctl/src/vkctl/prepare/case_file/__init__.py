"""The case file: its text, its keys, and what it says as typed data."""
