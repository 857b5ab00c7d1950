"""One module per case; each has `run(quick)` and returns a `page.Result`."""
