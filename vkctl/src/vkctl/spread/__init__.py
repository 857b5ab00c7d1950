"""Work spread over worker processes, here or on the machines of a cluster, by Dask."""
