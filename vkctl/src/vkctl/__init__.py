"""vkctl: prepares working directories for vk_rund, runs it and reads its results.

One convention holds throughout: nodes, elements, materials, load cases,
connectivity rows and design points are numbered from 1, in the files and in every index array
of this package. A number is turned into a numpy position with ``number - 1``.
"""


def __getattr__(name: str) -> str:
    """`__version__` is the installed distribution's, looked up when it is asked for first."""
    if name == "__version__":
        from importlib.metadata import version

        globals()[name] = found = version("vkctl")
        return found
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
