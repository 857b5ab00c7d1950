"""Case files that several tests read."""

from __future__ import annotations

GOOD = """part = "plate.msh"
run_order = ["second", "first"]

[mesh]
size = 1.5
order = 1
scale = 0.001

[model]
exclude = "void"
ignore_level = ["rim", "bolt"]
marked_nodes = ["bolt"]

[materials.steel]
E = 210000.0
nu = 0.3
density = 7.85e-9
[materials.rubber]
kind = "compression_only"
E = 10
nu = 0.45
elements = ["pad"]
[materials.soft]
kind = "yielding"
E = 70000
nu = 0.33
yield_stress = 200
elements = "rim"
[materials.wood]
kind = "orthotropic"
E = [12000, 800, 400]
nu = [0.4, 0.4, 0.3]
G = [700, 600, 100]
elements = "beam"

[node_sets.tip]
nearest = [4, 1, 1]
[face_sets.top]
plane = { point = [0, 0, 1], normal = [0, 0, 1], tolerance = 1e-4 }
normal = { direction = [0, 0, 1], angle = 20 }
[element_sets.core]
box = { min = [0, 0, 0], max = [1, 1, 1] }
where = "x**2 + y**2 < 1"

[supports.clamp]
set = "left"
[supports.push]
type = "prescribed"
set = "right"
value = [0.1, 0, "x / 10"]
directions = "xz"
[supports.bed]
type = "elastic"
set = "bottom"
stiffness = [1, 2, 3]
per = "area"
axes = [[1, 1, 0], [1, -1, 0], [0, 0, 1]]
offset = [0.0, 0.0, 0.1]

[loads.tip]
type = "force"
set = "tip"
value = [0, 0, -1000]
[loads.oil]
type = "pressure"
set = "hole"
value = "10 * (1 - z)"
[loads.heat]
type = "temperature"
value = 80
reference = 20

[level]
value = "1 - z"

[[load_case]]
name = "first"
supports = ["clamp"]
loads = ["tip", "heat"]
[[load_case]]
name = "second"
loads = { tip = 1.5, oil = -1 }
requested = false

[options]
Sta.BStressExp = 6
"Sys.ComputationMode" = 2

[optimise]
volume = 0.3
"""
