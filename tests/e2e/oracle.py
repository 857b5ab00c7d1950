"""What a run must leave behind, computed a second time: dense, serial and without the program.

`simulate` reads a working directory as it stands before a run, with readers of its own, and
returns for each load case that the run will solve everything it must write. Systems are solved
directly in double precision, so iteration counts, times and memory estimates are not predicted.

Readers, tables, shape functions and rules here repeat on purpose what the program and its companion
have: a mistake in theirs must not find its like here.

Numbers of nodes, elements and so on are 1-based in the files and 0-based here, apart from
`Numbering.dof_map` and the load-case numbers, which keep their file values.
"""

from __future__ import annotations

import struct
from collections.abc import Iterator
from dataclasses import dataclass, field
from itertools import product
from pathlib import Path

import numpy as np

TET4, TET10, HEX8 = 40, 41, 60
NODES = {TET4: 4, HEX8: 8, TET10: 10}
LEVEL_NODES = {TET4: 4, HEX8: 8, TET10: 4}

PCG_TOLERANCE = float(np.float32(1e-5))
FLOOR = float(np.float32(0.001))
SWITCH_LEVEL = float(np.float32(-0.2))
LARGEST_FLOAT = np.finfo(np.float32).max

ISOTROPIC, YIELDING, COMPRESSION_ONLY, ORTHOTROPIC = 0x100, 0x200, 0x400, 0x800
NO_LEVEL = 1 << 1
LEFT_OUT = 1 << 2 | 1 << 8
NODE_MARK = 1 << 11


# --- reading -----------------------------------------------------------------------------------


class Bytes:
    """A file's content, taken item by item."""

    def __init__(self, directory: Path, name: str) -> None:
        self.data = Path(directory, name).read_bytes()
        self.place = 0

    def array(self, dtype: str | np.dtype, count: int) -> np.ndarray:
        kind = np.dtype(dtype)
        values = np.frombuffer(self.data, kind, max(count, 0), self.place)
        self.place += values.nbytes
        return values

    def int32(self) -> int:
        return int(self.array("<i4", 1)[0])


def numbered(stem: str, number: int) -> str:
    return f"{stem}.{number:04d}" if number <= 9999 else f"{stem}.****"


OPTION_DEFAULTS = {
    "Sys.AvailableMemGB": 8.0,
    "Sys.MaxNumCompThreads": 0,
    "Sys.ComputationMode": 0,
    "Sta.SupportStiffness": 1.0,
    "Sta.ResponseDumpFac": 0.0,
    "Sta.TopCriteriaCode": 0,
    "Sta.BStressExp": 4,
    "Sta.YieldStressFac": 1.0,
    "Sta.MatSlopeFactor": 500.0,
}
OPTION_LIMITS = {
    "Sys.ComputationMode": (0, 2),
    "Sta.SupportStiffness": (0.0, None),
    "Sta.ResponseDumpFac": (0.0, 0.99),
    "Sta.TopCriteriaCode": (0, 1),
    "Sta.BStressExp": (1, 24),
    "Sta.YieldStressFac": (0.0, None),
    "Sta.MatSlopeFactor": (10.0, 10000.0),
}


def read_options(directory: Path) -> dict[str, float]:
    """Values by key with the limits applied; plain `key=value` lines only."""
    options: dict[str, float] = dict(OPTION_DEFAULTS)
    for line in Path(directory, "vk_rund_cmd.txt").read_text().splitlines():
        key, equals, text = line.strip().partition("=")
        if not equals or key not in options:
            continue
        kind = type(OPTION_DEFAULTS[key])
        low, high = OPTION_LIMITS.get(key, (None, None))
        value = kind(text)
        value = value if low is None else max(value, low)
        value = value if high is None else min(value, high)
        options[key] = value if kind is int else float(np.float32(value))
    return options


MATERIAL = np.dtype(
    {
        "names": ["flags", "E", "nu", "yield", "hardening", "expansion", "strain", "limit"]
        + ["E123", "nu123", "G123", "expansions"],
        "formats": ["<u4"] + ["<f4"] * 7 + [("<f4", 3)] * 4,
        "offsets": [32, 36, 40, 48, 52, 56, 60, 64, 72, 84, 96, 108],
        "itemsize": 192,
    }
)
ELEMENT = np.dtype([("material", "<i2"), ("code", "<i2"), ("row", "<i4")])
CONSTRAINT = np.dtype(
    [
        ("kind", "<i2"),
        ("mask", "<u2"),
        ("node", "<i4"),
        ("value", "<f4", 3),
        ("axis", "<f4", (3, 3)),
    ]
)
FORCE = np.dtype([("node", "<i4"), ("force", "<f4", 3)])
SCALAR = np.dtype([("node", "<i4"), ("value", "<f4")])


@dataclass
class Model:
    materials: np.ndarray
    stiffness: np.ndarray  # float32 (materials, 9)
    num_nodes: int
    coords: np.ndarray
    node_flags: np.ndarray
    tp_index: np.ndarray
    elements: np.ndarray
    tables: dict[int, np.ndarray]
    element_flags: np.ndarray
    num_tp: int
    level: np.ndarray  # NodeTpFactor, float32

    @property
    def has_state(self) -> bool:
        return bool(np.any(self.materials["flags"] & (YIELDING | COMPRESSION_ONLY)))

    def live(self) -> Iterator[int]:
        """Elements (0-based) that take part in the passes."""
        for e in range(len(self.element_flags)):
            if not self.element_flags[e] & LEFT_OUT and int(self.elements["code"][e]) in NODES:
                yield e

    def nodes_of(self, element: int) -> np.ndarray:
        record = self.elements[element]
        nodes: np.ndarray = self.tables[int(record["code"])][record["row"] - 1] - 1
        return nodes


def read_model(directory: Path) -> Model:
    mats = Bytes(directory, "mx.mats")
    mats.int32()
    materials = mats.array(MATERIAL, mats.int32())
    nodes = Bytes(directory, "mx.nodes")
    nodes.int32()
    coords = nodes.array("<f4", 3 * nodes.int32()).reshape(-1, 3)
    flags = Bytes(directory, "mxs.nodeflags")
    node_flags = flags.array("<i2", flags.int32())
    adr = Bytes(directory, "mxs.tpadr")
    tp_index = adr.array("<i4", adr.int32())
    elems = Bytes(directory, "mx.elems")
    elems.int32()
    elements = elems.array(ELEMENT, elems.int32())
    tables = {
        code: elems.array("<i4", NODES[code] * elems.int32()).reshape(-1, NODES[code])
        for code in (TET4, HEX8, TET10)
    }
    eflags = Bytes(directory, "mxs.elemflags")
    element_flags = eflags.array("<i2", eflags.int32())
    tp = Bytes(directory, "mxs.tp")
    values = tp.array("<f4", tp.int32())
    return Model(
        materials,
        stiffness_rows(materials),
        len(tp_index),
        coords.astype(np.float64),
        node_flags,
        tp_index,
        elements,
        tables,
        element_flags,
        len(values),
        level_field(tp_index, values),
    )


def level_field(tp_index: np.ndarray, values: np.ndarray) -> np.ndarray:
    """Level per node: the design point's value scaled to a mean magnitude of 0.5, or 1."""
    scale = np.float32(1.0)
    if len(values):
        mean = np.abs(values).sum(dtype=np.float32) / np.float32(len(values))
        scale = np.float32(0.5) / mean if mean > 0 else mean
    level = np.ones(len(tp_index), np.float32)
    used = tp_index > 0
    level[used] = scale * values[tp_index[used] - 1]
    return level


def stiffness_rows(materials: np.ndarray) -> np.ndarray:
    """C11, C12, C13, C22, C23, C33 and twice the shear moduli xy, yz, xz, in float32."""
    rows = np.full((len(materials), 9), np.nan, np.float32)
    one, two = np.float32(1), np.float32(2)
    for m, row in zip(materials, rows, strict=True):
        if m["flags"] & (ISOTROPIC | YIELDING | COMPRESSION_ONLY):
            e, nu = m["E"], m["nu"]
            c11 = e * (one - nu) / ((one - two * nu) * (one + nu))
            c12 = nu * c11 / (one - nu)
            shear = two * (e / (two * (one + nu)))
            row[:] = (c11, c12, c12, c11, c12, c11, shear, shear, shear)
        if m["flags"] & ORTHOTROPIC:
            e1, e2, e3 = m["E123"]
            n12, n13, n23 = m["nu123"]
            n21, n32, n31 = e2 * n12 / e1, e3 * n23 / e2, e3 * n13 / e1
            d = one - n12 * n21 - n23 * n32 - n13 * n31 - two * n21 * n32 * n13
            g12, g13, g23 = m["G123"]
            row[:] = (
                (one - n23 * n32) * e1 / d,
                (n21 + n23 * n31) * e1 / d,
                (n31 + n21 * n32) * e1 / d,
                (one - n13 * n31) * e2 / d,
                (n32 + n12 * n31) * e2 / d,
                (one - n12 * n21) * e3 / d,
                two * g12,
                two * g23,
                two * g13,
            )
    return rows


@dataclass
class LoadCaseData:
    constraints: np.ndarray
    forces: list[np.ndarray]
    scalars: np.ndarray  # float32 per node; zeros where the load case has no temperatures


def read_loadcase(directory: Path, number: int, num_nodes: int) -> LoadCaseData:
    data = Bytes(directory, numbered("mxs.lcmap", number))
    constraints = data.array(CONSTRAINT, data.int32())
    forces = [data.array(FORCE, data.int32()) for _ in range(2)]
    pairs = data.array(SCALAR, data.int32())
    scalars = np.zeros(num_nodes, np.float32)
    for pair in pairs:
        scalars[pair["node"] - 1] = pair["value"]
    return LoadCaseData(constraints, forces, scalars)


# --- elements ----------------------------------------------------------------------------------


@dataclass
class Point:
    """Integration point of a reference element."""

    weight: float
    shape: np.ndarray  # (nodes,)
    slope: np.ndarray  # (nodes, 3): derivatives by the parameters
    level_shape: np.ndarray  # weights of the level values


TET_ORBITS = {
    2: ((0.25, 0.1381966011250105, 0.5854101966249685),),
    3: (
        (0.13852796651186214, 0.3280546967114267, 0.01583590986571992),
        (0.11147203348813786, 0.10695227393293068, 0.679143178201208),
    ),
}
GAUSS = {
    2: ((-0.577350269189626, 1.0), (0.577350269189626, 1.0)),
    3: (
        (-0.774596669241483, 0.555555555555556),
        (0.0, 0.888888888888889),
        (0.774596669241483, 0.555555555555556),
    ),
}
HEX_SIGNS = np.array(
    ((-1, -1, -1), (1, -1, -1), (1, 1, -1), (-1, 1, -1))
    + ((-1, -1, 1), (1, -1, 1), (1, 1, 1), (-1, 1, 1)),
    float,
)
TET_EDGES = ((0, 1), (1, 2), (0, 2), (0, 3), (1, 3), (2, 3))
# d(L, a, b, c) / d(a, b, c)
BARY_SLOPE = np.array(((-1, -1, -1), (1, 0, 0), (0, 1, 0), (0, 0, 1)), float)


def points(code: int, order: int) -> Iterator[Point]:
    if code == HEX8:
        yield from hex_points(order)
        return
    for weight, a, b in TET_ORBITS[order]:
        for corner in range(4):
            bary = np.full(4, a)
            bary[corner] = b
            bary[0] = 1 - bary[1:].sum()
            shape, slope = tet_shape(code, bary)
            yield Point(weight / 6, shape, slope, bary)


def tet_shape(code: int, bary: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    if code == TET4:
        return bary, BARY_SLOPE
    corners = bary * (2 * bary - 1)
    mids = [4 * bary[i] * bary[j] for i, j in TET_EDGES]
    corner_slopes = (4 * bary - 1)[:, None] * BARY_SLOPE
    mid_slopes = [4 * (bary[i] * BARY_SLOPE[j] + bary[j] * BARY_SLOPE[i]) for i, j in TET_EDGES]
    return np.concatenate((corners, mids)), np.concatenate((corner_slopes, mid_slopes))


def hex_points(order: int) -> Iterator[Point]:
    for along in product(GAUSS[order], repeat=3):
        place = np.array([x for x, _ in along])
        factors = 1 + HEX_SIGNS * place
        shape = factors.prod(axis=1) / 8
        slope = np.empty((8, 3))
        for k in range(3):
            others = np.delete(factors, k, axis=1).prod(axis=1)
            slope[:, k] = HEX_SIGNS[:, k] * others / 8
        yield Point(float(np.prod([w for _, w in along])), shape, slope, shape)


@dataclass
class Gathered:
    """Inputs of elements of one type that take the same rule, stacked along the first axis."""

    code: int
    order: int
    numbers: np.ndarray  # 0-based elements
    nodes: np.ndarray  # (m, nodes), 0-based
    coords: np.ndarray  # (m, nodes, 3)
    level: np.ndarray
    scalars: np.ndarray
    law: np.ndarray  # (m, 6, 6): stress of the strains xx, yy, zz, xy, yz, xz
    expansion: np.ndarray  # (m, 3)
    strain: np.ndarray  # (m, 3)


def gather(
    model: Model, state: np.ndarray, scalars: np.ndarray, options: dict[str, float]
) -> list[Gathered]:
    """All live elements, grouped by type and rule."""
    groups: dict[tuple[int, int], list[int]] = {}
    for e in model.live():
        code = int(model.elements["code"][e])
        order = 3 if element_level(model, e).max() > SWITCH_LEVEL else 2
        groups.setdefault((code, order), []).append(e)
    return [
        gather_group(model, state, scalars, options, code, order, np.array(numbers))
        for (code, order), numbers in groups.items()
    ]


def element_level(model: Model, e: int) -> np.ndarray:
    nodes = model.nodes_of(e)[: LEVEL_NODES[int(model.elements["code"][e])]]
    if model.element_flags[e] & NO_LEVEL:
        return np.ones(len(nodes))
    level: np.ndarray = model.level[nodes].astype(np.float64)
    return level


def gather_group(
    model: Model,
    state: np.ndarray,
    scalars: np.ndarray,
    options: dict[str, float],
    code: int,
    order: int,
    numbers: np.ndarray,
) -> Gathered:
    nodes = np.array([model.nodes_of(e) for e in numbers])
    constants = [element_constants(model, state, options, e) for e in numbers]
    return Gathered(
        code,
        order,
        numbers,
        nodes,
        model.coords[nodes],
        np.array([element_level(model, e) for e in numbers]),
        scalars[nodes].astype(np.float64),
        *(np.array(column) for column in zip(*constants, strict=True)),
    )


def element_constants(
    model: Model, state: np.ndarray, options: dict[str, float], e: int
) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Law (6, 6), expansion (3,) and initial strain (3,) of an element."""
    index = model.elements["material"][e] - 1
    material, row = model.materials[index], model.stiffness[index].astype(np.float64)
    flags = material["flags"]
    expansion = np.repeat(float(material["expansion"]), 3)
    if flags & (YIELDING | COMPRESSION_ONLY):
        scaled = flags & COMPRESSION_ONLY or options["Sta.YieldStressFac"] > 0
        row = row * float(state[e] if scaled else 1.0)
        if flags & COMPRESSION_ONLY:
            row[6:] *= FLOOR
    if flags & ORTHOTROPIC:
        row = model.stiffness[index].astype(np.float64)
        expansion = material["expansions"].astype(np.float64)
    law = np.zeros((6, 6))
    law[:3, :3] = row[[0, 1, 2, 1, 3, 4, 2, 4, 5]].reshape(3, 3)
    law[[3, 4, 5], [3, 4, 5]] = 0.5 * row[6:]
    return law, expansion, np.repeat(float(material["strain"]), 3)


def presence(x: np.ndarray) -> np.ndarray:
    factor: np.ndarray = (np.arctan(x) / np.pi + 0.5) * (1 - FLOOR) + FLOOR
    return factor


def strain_rows(gradients: np.ndarray) -> np.ndarray:
    """B (m, 6, 3 nodes) of shape function gradients (m, nodes, 3)."""
    m, n, _ = gradients.shape
    b = np.zeros((m, 6, n, 3))
    for k in range(3):
        b[:, k, :, k] = gradients[:, :, k]
    for row, (i, j) in enumerate(((0, 1), (1, 2), (0, 2)), 3):
        b[:, row, :, i] = gradients[:, :, j]
        b[:, row, :, j] = gradients[:, :, i]
    return b.reshape(m, 6, 3 * n)


@dataclass
class AtPoint:
    b: np.ndarray
    volume: np.ndarray  # dV
    strain: np.ndarray  # mechanical
    stress: np.ndarray
    slope_level: np.ndarray  # slope factor times level


def at_points(g: Gathered, disp: np.ndarray, slope_factor: float) -> Iterator[AtPoint]:
    """Walk the rule with displacements (m, nodes, 3)."""
    m = len(g.numbers)
    for p in points(g.code, g.order):
        jacobian = np.einsum("mnx,nk->mkx", g.coords, p.slope)
        gradients = np.einsum("mxk,nk->mnx", np.linalg.inv(jacobian), p.slope)
        b = strain_rows(gradients)
        strain = np.einsum("mij,mj->mi", b, disp.reshape(m, -1))
        strain[:, :3] -= g.expansion * (g.scalars @ p.shape)[:, None] + g.strain
        yield AtPoint(
            b,
            p.weight * np.linalg.det(jacobian),
            strain,
            np.einsum("mij,mj->mi", g.law, strain),
            slope_factor * (g.level @ p.level_shape),
        )


def element_system(
    g: Gathered, disp: np.ndarray, slope_factor: float
) -> tuple[np.ndarray, np.ndarray]:
    """Matrices (m, 3 nodes, 3 nodes) and internal forces (m, 3 nodes)."""
    m, n = g.nodes.shape
    matrices, forces = np.zeros((m, 3 * n, 3 * n)), np.zeros((m, 3 * n))
    for at in at_points(g, disp, slope_factor):
        weight = presence(at.slope_level) * at.volume
        turned = at.b.transpose(0, 2, 1)
        matrices += weight[:, None, None] * (turned @ g.law @ at.b)
        forces += weight[:, None] * np.einsum("mij,mi->mj", at.b, at.stress)
    return matrices, forces


def element_sums(g: Gathered, disp: np.ndarray, slope_factor: float) -> np.ndarray:
    """The nine response sums (m, 9)."""
    sums = np.zeros((len(g.numbers), 9))
    for at in at_points(g, disp, slope_factor):
        smooth, sharp = presence(at.slope_level), presence(1000 * at.slope_level)
        energy = 0.5 * (at.strain * at.stress).sum(axis=1)
        mises = von_mises(at.stress)
        parts = (
            np.ones_like(smooth),
            smooth,
            sharp,
            energy * smooth**2,
            mises * smooth**2,
            energy * sharp,
            mises * sharp,
            at.stress[:, :3].mean(axis=1) * sharp,
            at.strain[:, :3].mean(axis=1) * sharp,
        )
        sums += np.column_stack(parts) * at.volume[:, None]
    return sums


def von_mises(s: np.ndarray) -> np.ndarray:
    normal = (s[:, 0] - s[:, 1]) ** 2 + (s[:, 1] - s[:, 2]) ** 2 + (s[:, 2] - s[:, 0]) ** 2
    stress: np.ndarray = np.sqrt(3 * (normal / 6 + (s[:, 3:] ** 2).sum(axis=1)))
    return stress


# --- numbering and system ------------------------------------------------------------------------


@dataclass
class Numbering:
    dof_map: np.ndarray  # (nodes, 3): equation, 0, or minus a constraint row
    count: int
    active: np.ndarray  # (nodes,): has a free component
    entries: int  # stored entries of the upper triangle
    bandwidth: int  # as the structure file tells


def number_equations(model: Model, case: LoadCaseData, directory: Path) -> Numbering:
    free = np.zeros((model.num_nodes, 3), bool)
    for e in model.live():
        free[model.nodes_of(e)] = True
    dof_map = np.zeros((model.num_nodes, 3), int)
    for r, row in enumerate(case.constraints, 1):
        if row["kind"] & 1:
            continue
        for k in range(3):
            if row["mask"] >> k & 1:
                node = row["node"] - 1
                free[node, k] = False
                dof_map[node, k] = 0 if row["value"][k] == 0 else -r
    dof_map[free] = 1 + np.arange(free.sum())
    entries, bandwidth = count_entries(directory, dof_map.ravel())
    return Numbering(dof_map, int(free.sum()), np.asarray(free.any(axis=1)), entries, bandwidth)


def count_entries(directory: Path, codes: np.ndarray) -> tuple[int, int]:
    """Entries between free components, and the bandwidth figure, of the structure file."""
    data = Bytes(directory, "mxs.sadr")
    rows, bandwidth = data.int32(), data.int32()
    count = int(data.array("<i8", 1)[0])
    columns = data.array("<i4", count)
    start = data.array("<i8", rows + 1)
    own = np.repeat(np.arange(rows), np.diff(start))
    return int(((codes[own] > 0) & (codes[columns - 1] > 0)).sum()), bandwidth


def nodal(dof_map: np.ndarray, constraints: np.ndarray, solution: np.ndarray) -> np.ndarray:
    """Displacements (nodes, 3) of a solution, prescribed values put in."""
    values = np.zeros(dof_map.shape)
    free = dof_map > 0
    values[free] = solution[dof_map[free] - 1]
    for node, k in np.argwhere(dof_map < 0):
        values[node, k] = constraints["value"][-dof_map[node, k] - 1, k]
    return values


def assemble(
    model: Model,
    groups: list[Gathered],
    case: LoadCaseData,
    numbering: Numbering,
    disp: np.ndarray,
    options: dict[str, float],
) -> tuple[np.ndarray, np.ndarray]:
    """Unscaled matrix and internal forces of the free equations at displacements `disp`."""
    n = numbering.count
    matrix, forces = np.zeros((n, n)), np.zeros(n)
    pieces = list(support_terms(case, disp, options["Sta.SupportStiffness"]))
    for g in groups:
        k, f = element_system(g, disp[g.nodes], options["Sta.MatSlopeFactor"])
        pieces += list(zip(g.nodes, k, f, strict=True))
    for nodes, k, f in pieces:
        codes = numbering.dof_map[nodes].ravel()
        at = np.flatnonzero(codes > 0)
        equations = codes[at] - 1
        np.add.at(forces, equations, f[at])
        np.add.at(matrix, np.ix_(equations, equations), k[np.ix_(at, at)])
    raise_marked_diagonals(model, numbering, matrix)
    return matrix, forces


def support_terms(
    case: LoadCaseData, disp: np.ndarray, stiffness: float
) -> Iterator[tuple[np.ndarray, np.ndarray, np.ndarray]]:
    """(nodes, matrix, forces) of each elastic support."""
    for row in case.constraints:
        if not row["kind"] & 1:
            continue
        node = row["node"] - 1
        k, f = np.zeros((3, 3)), np.zeros(3)
        for b in range(3):
            if row["mask"] >> b & 1:
                axis = row["axis"][b].astype(np.float64)
                gap = disp[node] @ axis - float(row["value"][b])
                k += stiffness * np.outer(axis, axis)
                f += stiffness * gap * axis
        yield np.array([node]), k, f


def raise_marked_diagonals(model: Model, numbering: Numbering, matrix: np.ndarray) -> None:
    for node in range(model.num_nodes):
        if numbering.active[node] and model.node_flags[node] & NODE_MARK:
            for code in numbering.dof_map[node]:
                if code > 0:
                    matrix[code - 1, code - 1] *= 1.0000000001


def apply_loads(
    model: Model, case: LoadCaseData, numbering: Numbering, rhs: np.ndarray
) -> np.ndarray:
    """Add the nodal forces to `rhs`; returns the three sums."""
    total = np.zeros(3)
    for records in case.forces:
        for record in records:
            node = record["node"] - 1
            if model.node_flags[node] & NODE_MARK:
                continue
            force = record["force"].astype(np.float64)
            total += force
            for k in range(3):
                if numbering.dof_map[node, k] > 0:
                    rhs[numbering.dof_map[node, k] - 1] += force[k]
    return total


def solve(matrix: np.ndarray, rhs: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Solution, and the largest error per component that the iteration may stop with.

    The iteration ends when no residual of the unit-diagonal system is larger than the tolerance
    times its largest right-hand side; the inverse turns that into an error of each unknown.
    """
    scale = 1 / np.sqrt(np.diag(matrix))
    inverse = np.linalg.inv(matrix * np.outer(scale, scale))
    scaled = rhs * scale
    bound = scale * np.abs(inverse).sum(axis=1) * PCG_TOLERANCE * np.abs(scaled).max()
    return scale * (inverse @ scaled), bound


# --- response ----------------------------------------------------------------------------------


@dataclass
class Totals:
    energy: float = 0.0
    material_volume: float = 0.0
    power: float = 0.0
    weight: float = 0.0

    def boundary_stress(self, exponent: int) -> float:
        return float((self.power / (self.weight or 1.0)) ** (1.0 / exponent))


@dataclass
class Response:
    tcval: np.ndarray
    amsval: np.ndarray
    disval: np.ndarray
    mstate: np.ndarray
    totals: dict[str, float]  # SEner, MatVolume, BStress, MaxDis


@dataclass
class Nodes:
    """Sums at nodes and design points."""

    tc: np.ndarray
    tc_count: np.ndarray
    ams: np.ndarray
    sign: np.ndarray
    ams_count: np.ndarray


@dataclass
class ResponseInput:
    """All that the response needs besides the displacements."""

    model: Model
    options: dict[str, float]
    state: np.ndarray
    scalars: np.ndarray
    dof_map: np.ndarray
    previous: np.ndarray | None  # criterion of the earlier run

    def at(self, disp: np.ndarray) -> Response:
        """Response to displacements (nodes, 3)."""
        model, options = self.model, self.options
        sums = np.zeros((len(model.element_flags), 9))
        for g in gather(model, self.state, self.scalars, options):
            sums[g.numbers] = element_sums(g, disp[g.nodes], options["Sta.MatSlopeFactor"])
        state = self.state.copy()
        single = np.float32
        kept = Nodes(
            np.zeros(model.num_tp, single),
            np.zeros(model.num_tp, int),
            np.zeros(model.num_nodes, single),
            np.zeros(model.num_nodes, single),
            np.zeros(model.num_nodes, int),
        )
        totals = Totals()
        for e in model.live():
            add_element(model, options, e, sums[e], state, kept, totals)
        tcval = blended(reduced_criterion(kept), self.previous, options["Sta.ResponseDumpFac"])
        magnitude = np.sqrt((disp**2).sum(axis=1))
        free = np.where(self.dof_map > 0, disp, 0.0)
        named = {
            "SEner": totals.energy,
            "MatVolume": totals.material_volume,
            "BStress": totals.boundary_stress(int(options["Sta.BStressExp"])),
            "MaxDis": float(np.sqrt((free**2).sum(axis=1)).max(initial=0.0)),
        }
        return Response(tcval, reduced_stress(kept), magnitude.astype(single), state, named)


def add_element(
    model: Model,
    options: dict[str, float],
    e: int,
    r: np.ndarray,
    state: np.ndarray,
    kept: Nodes,
    totals: Totals,
) -> None:
    """Add one element's share; `r` holds its nine sums, R1 first."""
    material = model.materials[model.elements["material"][e] - 1]
    if material["flags"] & COMPRESSION_ONLY:
        state[e] = contact_state(state[e], r[8])
        return
    ratio, stress, mean = r[2] / r[0], r[6] / r[2], r[7] / r[2]
    limit = float(material["limit"])
    totals.energy += r[5]
    add_nodal(model, e, criterion(r, limit, options), ratio, stress, mean, kept)
    if material["flags"] & YIELDING:
        state[e] = yield_state(state[e], stress, material, options["Sta.YieldStressFac"])
    if model.element_flags[e] & NO_LEVEL:
        return
    totals.material_volume += r[2]
    level = element_level(model, e)
    if ratio < 0.5 or level.max() <= 0:
        return
    weight = 1.0 if level.min() < 0 else (level.max() - level.min()) ** 32
    if weight == 0:
        return
    totals.weight += weight
    x = stress * weight / (limit if r[7] > 0 else 1.0)
    totals.power += weight * x ** int(options["Sta.BStressExp"])


def criterion(r: np.ndarray, limit: float, options: dict[str, float]) -> float:
    strength = limit if r[7] < 0 else 1 / limit if r[7] > 0 else 1.0
    volume = float(np.float32(0.1)) * r[0] + float(np.float32(0.9)) * r[1]
    if options["Sta.TopCriteriaCode"] == 0:
        return float(r[3] / volume * strength)
    return float(r[4] / volume * np.sqrt(strength))


def add_nodal(
    model: Model, e: int, value: float, ratio: float, stress: float, mean: float, kept: Nodes
) -> None:
    for node in model.nodes_of(e):
        place = int(model.tp_index[node]) - 1
        if place >= 0:
            kept.tc[place] = np.float32(float(kept.tc[place]) + value)
            kept.tc_count[place] += 1
        if ratio > 0.5:
            kept.ams[node] = np.float32(float(kept.ams[node]) + stress)
            kept.sign[node] = np.float32(float(kept.sign[node]) + mean)
            kept.ams_count[node] += 1


def contact_state(state: np.float32, stretch: float) -> np.float32:
    if stretch > 0:
        return max(state / np.float32(10), np.float32(0.001))
    return min(state * np.float32(10), np.float32(1))


def yield_state(state: np.float32, stress: float, material: np.void, factor: float) -> np.float32:
    limit = float(material["yield"]) * factor
    if limit <= 0 or stress <= 0:
        return state
    unscaled = stress / float(state)
    secant = (limit + float(material["hardening"]) * (unscaled - limit)) / unscaled
    return max(min(np.float32((float(state) + secant) * 0.5), np.float32(1)), np.float32(0.001))


def reduced_criterion(kept: Nodes) -> np.ndarray:
    touched = kept.tc_count > 0
    values = np.full(len(kept.tc), LARGEST_FLOAT, np.float32)
    values[touched] = kept.tc[touched] / kept.tc_count[touched].astype(np.float32)
    values[~touched] = values.min(initial=LARGEST_FLOAT)
    return values


def reduced_stress(kept: Nodes) -> np.ndarray:
    count = np.maximum(kept.ams_count, 1).astype(np.float32)
    values = np.where(kept.ams_count > 0, np.abs(kept.ams / count), kept.ams)
    return np.where((kept.ams_count > 0) & (kept.sign < 0), -values, values)


def blended(values: np.ndarray, previous: np.ndarray | None, factor: float) -> np.ndarray:
    """Blend of a converged solve, whose factor is the option itself."""
    if previous is None or factor <= 0:
        return values
    f = np.float32(factor)
    return values * (np.float32(1) - f) + previous * f


# --- a whole run ---------------------------------------------------------------------------------


@dataclass
class Case:
    """One load case that a run solves, as expected."""

    number: int
    pattern: int
    new_pattern: bool
    new_matrix: bool
    numbering: Numbering
    displacements: np.ndarray  # (nodes, 3)
    bound: np.ndarray  # (nodes, 3): error that the iteration may leave
    loads: np.ndarray  # Rx, Ry, Rz
    inputs: ResponseInput
    at_rest: bool  # nothing to solve: no iteration at all
    response: Response = field(init=False)

    def __post_init__(self) -> None:
        self.response = self.inputs.at(self.displacements)


@dataclass
class Run:
    cases: list[Case]
    flags: np.ndarray  # of mxs.lcflags after the run
    has_state: bool
    options: dict[str, float]


@dataclass
class Kept:
    """What one load case hands to the next."""

    pattern: int = 0
    numbering: Numbering | None = None
    matrix: np.ndarray | None = None


def simulate(directory: Path | str) -> Run:
    """The run that the program will make of `directory` as it is now."""
    directory = Path(directory)
    options, model = read_options(directory), read_model(directory)
    kinds, patterns, order = read_table(directory)
    data = Bytes(directory, "mxs.lcflags")
    flags = data.array("<i4", data.int32()).copy()
    kept, cases = Kept(), []
    for j in order:
        if kinds[j - 1] == 1 and flags[j - 1] & 7 == 1:
            cases.append(solve_case(directory, model, options, int(j), int(patterns[j - 1]), kept))
            flags[j - 1] |= 2
    return Run(cases, flags, model.has_state, options)


def read_table(directory: Path) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    data = Bytes(directory, "mxs.lcdata")
    count = data.int32()
    data.int32()
    rows = data.array(np.dtype((np.void, 1040)), count)
    words = np.frombuffer(rows.tobytes(), "<i4").reshape(-1, 260)
    return words[:, 0], words[:, 1], words[:, 2]


def solve_case(
    directory: Path, model: Model, options: dict[str, float], number: int, pattern: int, kept: Kept
) -> Case:
    case = read_loadcase(directory, number, model.num_nodes)
    state, state_found = read_state(directory, model, number)
    new_pattern = pattern != kept.pattern
    kept.pattern = pattern
    if new_pattern:
        kept.numbering = number_equations(model, case, directory)
    numbering = kept.numbering
    assert numbering is not None, "the first pattern is 0"
    start = read_start(directory, numbering, number)
    disp = nodal(numbering.dof_map, case.constraints, start)
    groups = gather(model, state, case.scalars, options)
    matrix, forces = assemble(model, groups, case, numbering, disp, options)
    new_matrix = new_pattern or (model.has_state and state_found)
    if new_matrix:
        kept.matrix = matrix
    rhs = -forces
    loads = apply_loads(model, case, numbering, rhs)
    at_rest = not rhs.any()
    if at_rest:
        solution, bound = np.zeros_like(rhs), np.zeros_like(rhs)
    else:
        assert kept.matrix is not None
        correction, bound = solve(kept.matrix, rhs)
        solution = start + correction
    return Case(
        number,
        pattern,
        new_pattern,
        new_matrix,
        numbering,
        nodal(numbering.dof_map, case.constraints, solution),
        np.where(numbering.dof_map > 0, nodal(numbering.dof_map, case.constraints, bound), 0.0),
        loads,
        ResponseInput(
            model,
            options,
            state,
            case.scalars,
            numbering.dof_map,
            read_previous(directory, model, number, options["Sta.ResponseDumpFac"]),
        ),
        at_rest,
    )


def read_state(directory: Path, model: Model, number: int) -> tuple[np.ndarray, bool]:
    """State per element, and whether a file was found: ones where it has the wrong length."""
    count = len(model.element_flags)
    path = Path(directory, numbered("ws.mstate", number))
    if not model.has_state or not path.exists():
        return np.ones(count, np.float32), False
    data = path.read_bytes()
    if len(data) < 4 * count + 4 or struct.unpack_from("<i", data)[0] != count:
        return np.ones(count, np.float32), True
    return np.frombuffer(data, "<f4", count, 4).copy(), True


def read_start(directory: Path, numbering: Numbering, number: int) -> np.ndarray:
    """Start vector; zeros where there is none or where the file is short."""
    start = np.zeros(numbering.count)
    path = Path(directory, numbered("ws.sstate", number))
    size = numbering.dof_map.size
    if path.exists() and path.stat().st_size >= 8 + 4 * size:
        values = np.frombuffer(path.read_bytes(), "<f4", size, 8).reshape(-1, 3)
        free = numbering.dof_map > 0
        start[numbering.dof_map[free] - 1] = values[free]
    return start


def read_previous(directory: Path, model: Model, number: int, factor: float) -> np.ndarray | None:
    path = Path(directory, numbered("ws.tcval", number))
    if factor <= 0 or not path.exists():
        return None
    data = path.read_bytes()
    if struct.unpack_from("<i", data)[0] < 1:
        return np.zeros(model.num_tp, np.float32)
    return np.frombuffer(data, "<f4", model.num_tp, 4)


# --- the log -------------------------------------------------------------------------------------

FIRST_LINES = (
    "Info<Msg:Tool.vk_rund.Start >",
    "Info<Msg:Eng x64 TLMx/IC/ID Build 2018.06.03 >",
)
END_LINE = "Info<Msg:Tool.vk_rund.End >"
TOTAL_KEYS = ("SEner", "MatVolume", "BStress", "MaxDis", "Rx", "Ry", "Rz")


def real_text(value: np.float32) -> str:
    return f"{float(value):.6E}"


def million_text(count: int) -> str:
    return f"{float(np.float32(count) / np.float32(1e6)):.2f}"


def case_lines(case: Case, mode: int, estimates: bool, totals: list[np.float32]) -> list[str]:
    """Log lines of a load case; `<count>`, `<real>` and `<time>` stand for numbers of the run.

    `mode` is the one that the load case ends in, `estimates` whether a factor was tried for it.
    `totals` are the reals of the file `ws.comval.NNNN`, the quality first.
    """
    lines = [f"Data<Key:LCaseId><Value:{case.number}>", f"Info<Msg:LCasePatInx: {case.pattern}>"]
    if case.new_pattern:
        n = case.numbering
        sizes = f"{n.bandwidth}/{million_text(n.count)}/{million_text(n.entries)}"
        lines.append(f"Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE={sizes} >")
    if estimates:
        lines.append("Info<Msg:EstDecMemReq: <real>>")
    lines.append(f"Info<Msg:IMode: {mode}>")
    lines.append("Info<Msg:ICount: 0>" if case.at_rest else "Info<Msg:ICount: <count>>")
    for key, value in zip(("ARQua", *TOTAL_KEYS), totals, strict=True):
        lines.append(f"Data<Key:{key}><Value:{real_text(value)}>")
    lines.append("Info<Msg:LCaseTime: <time> >")
    return lines


def whole_log(blocks: list[list[str]]) -> list[str]:
    """The log of a run that ends normally, from the lines of its load cases."""
    last = ("Info<Msg:Total time: <time> >", END_LINE)
    return [*FIRST_LINES, *(line for block in blocks for line in block), *last]
