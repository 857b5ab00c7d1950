"""Which scripts of Gmsh are harmless: those that say nothing but geometry.

A script can call the system, write files and read others. So every word of it has to be known as
harmless or be a name of its own, and a name must not stand where a command does. `harmless_script`
gives back the text that was judged, without comments and in short lines: Gmsh reads that one, and
nothing that it may take apart differently.
"""

from __future__ import annotations

import re
from collections.abc import Iterator

from ..part import PartError

# Words of the language that make, move, measure or mesh geometry, and those of its arithmetic.
_HARMLESS = frozenset(
    """
    Point Line Curve Circle Ellipse Ellipsis Spline BSpline Bezier CatmullRom Nurbs Knots Order
    Wire Surface Plane Ruled Filling Disk Rectangle Volume Box Block Sphere Cylinder Cone Torus
    Wedge Ellipsoid PolarSphere Parametric ThruSections ThickSolid Compound Physical Extrude Layers
    Recombine RecombLaterals QuadTriAddVerts QuadTriNoNewVerts ScaleLastLayer Using Hole In
    Translate Rotate Symmetry Dilate Affine Intersect Split Delete Recursive Coherence Reverse
    ReverseMesh ReorientMesh BooleanUnion BooleanFuse BooleanIntersection BooleanCommon
    BooleanDifference BooleanCut BooleanFragments BooleanCoherence BooleanSection Fillet Chamfer
    Sewing HealShapes Transfinite TransfQuadTri Periodic MeshSize MeshAlgorithm
    MeshSizeFromBoundary Smoother Characteristic Length Field Show Hide Color Normal
    If ElseIf Else EndIf For EndFor Macro Function Return Call SetFactory SetTag SetMaxTag
    DefineConstant DefineNumber UndefineConstant SetNumber GetNumber Exists GetValue
    Printf Warning Error BoundingBox Mass CenterOfMass MatrixOfInertia Parent SyncModel
    Abs Fabs Acos ArcCos Asin ArcSin Atan ArcTan Atan2 ArcTan2 Ceil Cos Cosh Exp Floor Fmod Hypot
    Log Log10 Max Min Modulo Pi Rand Round Sin Sinh Sqrt Step Tan Tanh
    List LinSpace LogSpace Unique Find Append Str StrCat StrCmp StrFind StrLen StrSub StrPrefix
    StrRelative StrReplace StrChoice Sprintf UpperCase LowerCase LowerCaseIn
    newreg newp newl newc newll newcl news newsl newv newf
    GMSH_MAJOR_VERSION GMSH_MINOR_VERSION GMSH_PATCH_VERSION
    """.split()
)

# Words of the language that aren't on that list, and commands that it knows by name only.
_REFUSED = frozenset(
    """
    Abort AbsolutePath AdaptMesh Alias AliasWithOptions Background_Mesh Betti ClassifySurfaces
    CodeName Cohomology ColorTable Combine Coordinates CopyOptions Cpu CreateDir CreateGeometry
    CreateOverlaps CreateTopology CurrentDir CurrentDirectory CurrentFileName DefineString
    DimNameSpace DirName Draw Euclidian Exit ExternalProcess FileExists FixRelativePath
    GeoEntity GetEnv GetForced GetForcedStr GetString GetStringValue GmshExecutableName Homology
    INTERPOLATION_SCHEME Include Levelset ListFromFile MPI_Rank MPI_Size Memory Merge
    MergeWithBoundingBox N2S NameStruct NameToString NewModel NonBlockingSystemCall OnelabAction
    OnelabRun Open OptimizeMesh PartitionMesh Plugin PostView Print RecombineMesh RefineMesh
    RelocateMesh Remesh RenumberMeshElements RenumberMeshNodes S2N Save SendToServer SetChanged
    SetName SetOrder SetPartition SetString ShapeFromFile Sleep Slide StringToName Struct
    Structured System SystemCall T2 T3 TIME TestLevel TextAttributes Today TotalMemory
    TransformMesh UnsplitWindow View FileName CommandLine
    """.split()
)

# Names that may stand before a number, a text or another name: attributes of constants, ways of
# spacing nodes.
_ATTRIBUTES = frozenset(
    """
    Name Min Max Step Choices Closed Highlight Label Help Visible ReadOnly ReadOnlyRange Units
    Progression Power Bump Beta
    """.split()
)

_FIELDS = frozenset(
    """
    Attractor AttractorAnisoCurve Ball BoundaryLayer Box Constant Curvature Cylinder Distance
    Extend Frustum Gradient IntersectAniso Laplacian LonLat MathEval MathEvalAniso Max
    MaxEigenHessian Mean Min MinAniso Param Restrict Threshold
    """.split()
)

_OPTIONS = ("Mesh", "Geometry")  # categories whose numbers are harmless
_TEXT_OPTIONS = (("Geometry", "OCCTargetUnit"),)
_GENERAL = ("Terminal", "Verbosity", "ExpertMode", "NumThreads")
_TEXTS = frozenset("Str StrCat StrSub StrPrefix StrRelative StrReplace StrChoice Sprintf".split())
_BLOCK_ENDS = ("EndIf", "EndFor", "Return", "Else")  # sought inside of words too

_TOKEN = re.compile(
    r"""(?P<blank>[ \t\n]+|//[^\n]*|/\*.*?\*/)
      | (?P<text>"[^"\n]{0,1000}"|'[^'\n]{0,1000}')
      | (?P<number>(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?)
      | (?P<word>[A-Za-z_][A-Za-z0-9_]*)
      | (?P<sign>[-+*/=!<>]=|\+\+|--|<<|>>|\|\||&&|::|\.\.\.|[-+*/%^=<>!?:;,.|&~\#(){}\[\]@])
    """,
    re.VERBOSE | re.DOTALL,
)
LONGEST_SCRIPT = 16 << 20  # bytes
_LONGEST_LINE = 1000  # characters; Gmsh takes lines beyond its buffer apart


def harmless_script(data: bytes, title: str) -> str:
    """The text of a script that says geometry alone; PartError names the first other thing."""
    if len(data) > LONGEST_SCRIPT:
        raise PartError(f"{title}: a script of more than {LONGEST_SCRIPT >> 20} MB isn't read")
    try:
        text = data.decode("utf-8").replace("\r\n", "\n")
    except UnicodeDecodeError as error:
        raise PartError(f"{title}: the script isn't UTF-8 text: {error.reason}") from None
    tokens: list[tuple[str, str]] = []
    lines: list[int] = []
    pieces: list[str] = []
    for kind, piece, line in _tokens(text, title):
        if kind == "blank":
            pieces.append("\n" * piece.count("\n") or " ")
            continue
        tokens.append((kind, piece))
        lines.append(line)
        pieces.append(piece)
    try:
        _Judge(tokens).judge()
    except _NotHarmlessError as error:
        raise PartError(
            f"{title}:{lines[error.place]}: {error.reason}, and a script of a stranger could do "
            "anything with that; --trust-scripts reads it all the same"
        ) from None
    return _in_short_lines(pieces)


def _tokens(text: str, title: str) -> Iterator[tuple[str, str, int]]:
    place, line = 0, 1
    while place < len(text):
        match = _TOKEN.match(text, place)
        if match is None:
            raise PartError(
                f"{title}:{line}: {text[place : place + 20]!r} isn't the text of a script"
            )
        assert match.lastgroup is not None
        yield match.lastgroup, match[0], line
        line += match[0].count("\n")
        place = match.end()


def _in_short_lines(pieces: list[str]) -> str:
    lines, length = [], 0
    for piece in pieces:
        if length + len(piece) > _LONGEST_LINE:
            lines.append("\n")
            length = 0
        lines.append(piece)
        length = 0 if piece.endswith("\n") else length + len(piece)
    return "".join(lines) + "\n"


class _NotHarmlessError(Exception):
    """A token that isn't harmless where it stands."""

    def __init__(self, place: int, reason: str) -> None:
        super().__init__(reason)
        self.place = place
        self.reason = reason


class _Judge:
    """Goes once over the tokens; raises _NotHarmlessError at the first that isn't."""

    def __init__(self, tokens: list[tuple[str, str]]) -> None:
        self.tokens = [*tokens, ("end", ""), ("end", "")]
        self.open: list[tuple[str, str]] = []  # each open bracket and the word in front of it
        self.text_names = {
            name
            for (kind, name), (_, sign), (after, value) in zip(
                self.tokens, self.tokens[1:], self.tokens[2:], strict=False
            )
            if kind == "word" and "=" in sign and (after == "text" or value in _TEXTS)
        }

    def judge(self) -> None:
        for place, (kind, piece) in enumerate(self.tokens[:-2]):
            if kind == "word":
                self._word(place, piece)
            elif kind == "text":
                self._text(place)
            elif piece in ("(", "[", "{"):
                before = self._at(place - 1)
                self.open.append((piece, before[1] if before[0] == "word" else ""))
            elif piece in (")", "]", "}"):
                self._close(place, piece)

    def _at(self, place: int) -> tuple[str, str]:
        return self.tokens[place] if place >= 0 else ("end", "")

    def _word(self, place: int, word: str) -> None:
        if word in _REFUSED:
            raise _NotHarmlessError(place, f"{word!r} reaches beyond geometry")
        if any(end in word and word != end and word != "ElseIf" for end in _BLOCK_ENDS):
            raise _NotHarmlessError(place, f"the name {word!r} ends a block inside")
        before, after = self._at(place - 1)[1], self._at(place + 1)
        if before == ".":
            return  # judged with the category in front
        if after[1] == "." and word not in _HARMLESS:
            self._option(place, word)
        elif word == "Field":
            self._field(place)
        elif word in _HARMLESS or word in _ATTRIBUTES or after == ("word", "In"):
            return
        elif before in ("Macro", "Function"):
            return  # its name, after which a statement begins
        elif after[0] in ("word", "text", "number") and not self._is_known_pair(word, after):
            raise _NotHarmlessError(place, f"{word!r} stands where a command does")

    def _is_known_pair(self, word: str, after: tuple[str, str]) -> bool:
        return (word == "Background" and after[1] == "Field") or (
            word == "Mesh" and after[0] == "number"
        )

    def _option(self, place: int, category: str) -> None:
        """An option: of a harmless category, with a value that is no text."""
        name = self._at(place + 2)[1]
        if category not in _OPTIONS and (category, name) not in [("General", n) for n in _GENERAL]:
            raise _NotHarmlessError(place, f"the option {category}.{name} isn't one of meshing")
        if (category, name) in _TEXT_OPTIONS:
            return
        for kind, piece in self.tokens[place + 2 :]:
            if piece == ";" or kind == "end":
                return
            if kind == "text" or piece in _TEXTS or piece in self.text_names:
                raise _NotHarmlessError(place, f"the option {category}.{name} is given a text")

    def _field(self, place: int) -> None:
        """A field of mesh sizes, of a kind that looks at no file and asks no program."""
        depth, at = 0, place + 1
        while self._at(at)[1] == "[" or depth:
            depth += {"[": 1, "]": -1}.get(self._at(at)[1], 0)
            at += 1
            if self._at(at)[0] == "end":
                return
        is_kind = self._at(place + 1)[1] == "[" and self._at(at)[1] == "="
        if is_kind and self._at(at + 1)[1] not in _FIELDS:
            kind = self._at(at + 1)[1]
            raise _NotHarmlessError(place, f"the field {kind!r} isn't known as harmless")

    def _text(self, place: int) -> None:
        """A text is a value, a member of a list or an argument of a word of the language."""
        kind, before = self._at(place - 1)
        if kind == "word":
            if before not in _ATTRIBUTES and before not in ("Show", "Hide"):
                raise _NotHarmlessError(place, f"{before!r} is given a text")
        elif before in ("(", "[", ","):
            bracket, word = self.open[-1] if self.open else ("", "")
            if bracket != "{" and word not in _HARMLESS:
                raise _NotHarmlessError(place, f"{word or 'a command'!r} is given a text")
        elif before not in ("=", "==", "!=", "{", "+=", "?", ":"):
            raise _NotHarmlessError(place, "a text stands where a command's file does")

    def _close(self, place: int, piece: str) -> None:
        _, word = self.open.pop() if self.open else ("", "")
        after = self._at(place + 1)
        if word in ("Printf", "Warning", "Error") and after[1] != ";":
            raise _NotHarmlessError(place, f"{word!r} writes a file")
        if piece == "]" and after[0] in ("word", "text"):
            raise _NotHarmlessError(place, "a name in brackets stands where a command does")
        if word not in ("Field", "") and piece in ")]" and after[1] == ".":
            raise _NotHarmlessError(place, f"the options of {word!r} aren't those of meshing")
