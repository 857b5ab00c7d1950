"""What a designer asks of the shape beside stiffness: patterns, tools, sizes, regions.

`entries.py` has the wishes as data, `read.py` reads them from a case file, `shape.py` makes of them
what the loop works with. There are two kinds. Those whose fields form a convex set (patterns, a
fixed side that a tool comes from) are held by the criterion: the levels are means of what its
fields want, so they stay in the set. The others are put on the levels inside of the search for the
threshold, so that the volume is that of a design which has them. All keep the order of fields,
a higher one stays higher, which the search relies on.
"""
