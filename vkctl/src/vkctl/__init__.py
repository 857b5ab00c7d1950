"""vkctl: prepares working directories for vk_rund, runs it and reads its results.

One convention holds throughout: nodes, elements, materials, load cases,
connectivity rows and design points are numbered from 1, in the files and in every index array
of this package. A number is turned into a numpy position with ``number - 1``.
"""

__version__ = "0.1.0"
