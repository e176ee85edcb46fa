#!/usr/bin/env python3
"""Whole-pipeline fuzzing of the built FacetTrim.

Each case is a small random triangle soup written as a binary or ASCII STL
file, run through the built tool with a random method, tolerance, angle and
sometimes -s<solid file>, and judged:

  * no signal, no sanitizer report, no hang (the case is killed after
    --timeout seconds), and exit status 0 or 255;
  * a failure prints "ERROR: REDUCTION NOT POSSIBLE !" once (after the low
    method's progress lines, if any), writes no report and leaves no output,
    except the complete output that a solid extraction failing after a good
    reduction leaves;
  * a success writes a complete output (header count equals its records) and
    a report; FacetMeasure finds every output vertex bitwise among the input's
    vertices, and its certificate proves the original -> reduced distance,
    measured from the facets that assembly keeps (facets with two equal
    corners go; doubled facets add nothing to the surface), within t with no
    slack, at every scale (a negative or NaN t must remove nothing, judged as
    0; at 0 an undecided certificate passes, since only identical facets
    decide it);
  * the solid file, if any, is complete and closed: no edge lies on one
    facet only (non-manifold edges and zero-area caps are allowed);
  * the input is never modified.

Every case follows from (seed, index) alone, so a run is reproduced by its
seed, and any single case by --case SEED:INDEX. A failing case is written to
the failure folder (input, command line, output, reason) so that it can
become a regression test; `--regress DIR` runs every DIR/*.stl with the
arguments in DIR/*.args through the same checks.

  pipeline_driver.py --tool build/FacetTrim --measure build/FacetMeasure \
      --seed 1 --cases 300 --jobs 2 --failures /tmp/ft-fuzz-failures

Exit status 0 when no case failed, 1 otherwise, 2 for bad usage.
"""

import argparse
import json
import math
import os
import re
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

FAILURE_MESSAGE = "ERROR: REDUCTION NOT POSSIBLE !\n"
PROGRESS_PREFIXES = ("Number of processors ", "Max Recursion Depth ", "Current Recursion Depth ",
                     "Final Recursion Depth ", "Stop Recursion at ")
SANITIZER_MARKS = ("AddressSanitizer", "LeakSanitizer", "UndefinedBehaviorSanitizer",
                   "runtime error:", "ThreadSanitizer")
FLT_MAX = 3.4028234663852886e38

# ---- float32 and STL files ---------------------------------------------------


def f32(x):
    """x rounded to the nearest float, clamped to the finite range."""
    if x != x:
        return 0.0
    x = max(-FLT_MAX, min(FLT_MAX, x))
    return struct.unpack("<f", struct.pack("<f", x))[0]


def binary_stl(facets, header=b"pipeline fuzz"):
    out = bytearray(header[:80].ljust(80, b"\0"))
    out += struct.pack("<I", len(facets))
    for f in facets:
        out += struct.pack("<12fH", 0.0, 0.0, 0.0, *(c for v in f for c in v), 0)
    return bytes(out)


def ascii_stl(facets, upper=False, name="fuzz"):
    # %.9g gives every float back exactly through the reader's sscanf %f.
    kw = (lambda s: s.upper()) if upper else (lambda s: s)
    lines = [kw("solid") + " " + name]
    for f in facets:
        lines.append(kw("facet normal") + " 0 0 0")
        lines.append("  " + kw("outer loop"))
        for v in f:
            lines.append("    %s %.9g %.9g %.9g" % (kw("vertex"), v[0], v[1], v[2]))
        lines.append("  " + kw("endloop"))
        lines.append(kw("endfacet"))
    lines.append(kw("endsolid") + " " + name)
    return ("\n".join(lines) + "\n").encode()


def read_binary(data):
    """(count field, facets) of a binary file, or None when shorter than a header."""
    if len(data) < 84:
        return None
    count = struct.unpack_from("<I", data, 80)[0]
    facets = []
    for at in range(84, len(data) - 49, 50):
        c = struct.unpack_from("<9f", data, at + 12)
        facets.append((c[0:3], c[3:6], c[6:9]))
    return count, facets


def kept_facets(facets):
    """The facets assembly keeps for the distance reference: no two equal
    corners. Doubled facets stay, since they add nothing to the surface."""
    return [f for f in facets if f[0] != f[1] and f[1] != f[2] and f[0] != f[2]]


# ---- Shapes: indexed meshes (vertices, faces) ---------------------------------


def tetra():
    v = [(0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)]
    return v, [(0, 2, 1), (0, 1, 3), (0, 3, 2), (1, 2, 3)]


def box(rng, n=None):
    """Unit box with an n x n grid on each side, outward facing."""
    n = n or rng.randint(1, 4)
    verts, index, faces = [], {}, []

    def vid(p):
        if p not in index:
            index[p] = len(verts)
            verts.append(tuple(c / n for c in p))
        return index[p]

    for axis in range(3):
        for side in (0, n):
            a, b = (axis + 1) % 3, (axis + 2) % 3
            for i in range(n):
                for j in range(n):
                    q = []
                    for di, dj in ((0, 0), (1, 0), (1, 1), (0, 1)):
                        p = [0, 0, 0]
                        p[axis], p[a], p[b] = side, i + di, j + dj
                        q.append(vid(tuple(p)))
                    if side == 0:
                        q.reverse()
                    faces += [(q[0], q[1], q[2]), (q[0], q[2], q[3])]
    return verts, faces


def icosphere(rng, level=None):
    level = rng.randint(0, 2) if level is None else level
    t = (1 + 5 ** 0.5) / 2
    v = [(-1, t, 0), (1, t, 0), (-1, -t, 0), (1, -t, 0), (0, -1, t), (0, 1, t), (0, -1, -t),
         (0, 1, -t), (t, 0, -1), (t, 0, 1), (-t, 0, -1), (-t, 0, 1)]
    f = [(0, 11, 5), (0, 5, 1), (0, 1, 7), (0, 7, 10), (0, 10, 11), (1, 5, 9), (5, 11, 4),
         (11, 10, 2), (10, 7, 6), (7, 1, 8), (3, 9, 4), (3, 4, 2), (3, 2, 6), (3, 6, 8), (3, 8, 9),
         (4, 9, 5), (2, 4, 11), (6, 2, 10), (8, 6, 7), (9, 8, 1)]
    v = [tuple(c / math.sqrt(sum(x * x for x in p)) for c in p) for p in v]
    for _ in range(level):
        mid = {}

        def m(a, b):
            key = (min(a, b), max(a, b))
            if key not in mid:
                p = [(v[a][k] + v[b][k]) / 2 for k in range(3)]
                r = math.sqrt(sum(x * x for x in p))
                mid[key] = len(v)
                v.append(tuple(x / r for x in p))
            return mid[key]

        nf = []
        for a, b, c in f:
            ab, bc, ca = m(a, b), m(b, c), m(c, a)
            nf += [(a, ab, ca), (b, bc, ab), (c, ca, bc), (ab, bc, ca)]
        f = nf
    return v, f


def uv_sphere(rng):
    rows, cols = rng.randint(3, 8), rng.randint(3, 12)
    v = [(0, 0, 1)]
    for i in range(1, rows):
        th = math.pi * i / rows
        for j in range(cols):
            ph = 2 * math.pi * j / cols
            v.append((math.sin(th) * math.cos(ph), math.sin(th) * math.sin(ph), math.cos(th)))
    v.append((0, 0, -1))
    south = len(v) - 1
    f = []
    for j in range(cols):
        f.append((0, 1 + j, 1 + (j + 1) % cols))
    for i in range(rows - 2):
        for j in range(cols):
            a, b = 1 + i * cols + j, 1 + i * cols + (j + 1) % cols
            c, d = a + cols, b + cols
            f += [(a, c, d), (a, d, b)]
    base = 1 + (rows - 2) * cols
    for j in range(cols):
        f.append((south, base + (j + 1) % cols, base + j))
    return v, f


def height_field(rng, flat_noise=None):
    """An open grid; near-coplanar when flat_noise is set."""
    nx, ny = rng.randint(2, 10), rng.randint(2, 10)
    amp = rng.choice([0.0, 0.01, 0.1, 0.5])
    v = []
    for i in range(nx + 1):
        for j in range(ny + 1):
            x, y = i / nx, j / ny
            z = flat_noise * rng.uniform(-1, 1) if flat_noise is not None else amp * math.sin(
                3 * x + rng.uniform(0, 0.2)) * math.cos(2 * y)
            v.append((x, y, z))
    f = []
    for i in range(nx):
        for j in range(ny):
            a, b = i * (ny + 1) + j, (i + 1) * (ny + 1) + j
            if rng.random() < 0.5:
                f += [(a, b, b + 1), (a, b + 1, a + 1)]
            else:
                f += [(a, b, a + 1), (b, b + 1, a + 1)]
    return v, f


def fan(rng, closed=False):
    k = rng.randint(3, 12)
    v = [(0, 0, rng.uniform(-0.3, 0.3))]
    for j in range(k):
        a = 2 * math.pi * j / k
        v.append((math.cos(a), math.sin(a), rng.uniform(-0.2, 0.2)))
    f = [(0, 1 + j, 1 + (j + 1) % k) for j in range(k if closed else k - 1)]
    return v, f


def book(rng):
    """k pages on one spine edge: a non-manifold edge."""
    k = rng.randint(3, 7)
    v = [(0, 0, 0), (0, 0, 1)]
    f = []
    for j in range(k):
        a = 2 * math.pi * j / k + rng.uniform(-0.1, 0.1)
        v.append((math.cos(a), math.sin(a), rng.uniform(0, 1)))
        f.append((0, 1, len(v) - 1))
    return v, f


def perturb(rng, mesh, amount):
    v, f = mesh
    return [tuple(c + rng.uniform(-amount, amount) for c in p) for p in v], f


def transform(mesh, scale=1.0, offset=(0, 0, 0), rot=None):
    v, f = mesh
    out = []
    for p in v:
        q = p
        if rot:
            q = tuple(sum(rot[r][k] * p[k] for k in range(3)) for r in range(3))
        out.append(tuple(q[k] * scale + offset[k] for k in range(3)))
    return out, f


def rotation(rng):
    a, b, c = (rng.uniform(0, 2 * math.pi) for _ in range(3))
    ca, sa, cb, sb, cc, sc = math.cos(a), math.sin(a), math.cos(b), math.sin(b), math.cos(c), math.sin(c)
    rz = [[ca, -sa, 0], [sa, ca, 0], [0, 0, 1]]
    ry = [[cb, 0, sb], [0, 1, 0], [-sb, 0, cb]]
    rx = [[1, 0, 0], [0, cc, -sc], [0, sc, cc]]

    def mul(p, q):
        return [[sum(p[i][k] * q[k][j] for k in range(3)) for j in range(3)] for i in range(3)]

    return mul(mul(rz, ry), rx)


def soup(mesh, unit):
    """Facets of an indexed mesh, each vertex rounded to float once, so that
    shared vertices stay bitwise shared."""
    v, f = mesh
    w = [tuple(f32(c * unit) for c in p) for p in v]
    return [(w[a], w[b], w[c]) for a, b, c in f]


# ---- Case generation -----------------------------------------------------------

FAMILIES = ("random", "coplanar", "duplicated", "degenerate", "nonmanifold", "touching",
            "closed", "open", "mixed")


def closed_shape(rng):
    kind = rng.choice(["tetra", "box", "icosphere", "uv"])
    if kind == "tetra":
        mesh = tetra()
    elif kind == "box":
        mesh = box(rng)
    elif kind == "icosphere":
        mesh = icosphere(rng)
    else:
        mesh = uv_sphere(rng)
    amount = rng.choice([0.0, 0.0, 1e-6, 1e-3, 0.02, 0.1])
    return perturb(rng, mesh, amount) if amount else mesh


def placed(rng, mesh, spread=2.0):
    return transform(mesh, rng.uniform(0.3, 1.5),
                     tuple(rng.uniform(-spread, spread) for _ in range(3)),
                     rotation(rng) if rng.random() < 0.5 else None)


def family_facets(rng, family, unit):
    """Facets (float triples) of one family, at scale unit."""
    if family == "random":
        n = rng.randint(1, 60)
        pts = [tuple(f32(rng.uniform(-1, 1) * unit) for _ in range(3)) for _ in range(rng.randint(3, 30))]
        facets = []
        for _ in range(n):
            # Often share corners from a small pool, so that edges meet.
            if rng.random() < 0.6:
                facets.append(tuple(rng.choice(pts) for _ in range(3)))
            else:
                facets.append(tuple(tuple(f32(rng.uniform(-1, 1) * unit) for _ in range(3)) for _ in range(3)))
        return facets
    if family == "coplanar":
        noise = rng.choice([0.0, 1e-9, 1e-7, 1e-5, 1e-3])
        mesh = height_field(rng, flat_noise=noise)
        if rng.random() < 0.5:
            mesh = transform(mesh, 1.0, (0, 0, 0), rotation(rng))
        return soup(mesh, unit)
    if family == "duplicated":
        facets = soup(placed(rng, closed_shape(rng)), unit)
        extra = []
        for f in facets:
            r = rng.random()
            if r < 0.15:
                extra.append(f)
            elif r < 0.25:
                extra.append((f[0], f[2], f[1]))
            elif r < 0.3:
                extra.append((f[1], f[2], f[0]))
        return facets + extra
    if family == "degenerate":
        facets = soup(placed(rng, rng.choice([closed_shape, lambda r: height_field(r)])(rng)), unit)
        extra = []
        for _ in range(rng.randint(1, 12)):
            f = rng.choice(facets)
            r = rng.random()
            if r < 0.3:
                extra.append((f[0], f[0], f[1]))
            elif r < 0.5:
                extra.append((f[0], f[0], f[0]))
            elif r < 0.8:
                # Three distinct collinear corners (on a float grid where possible).
                a, b = f[0], f[1]
                mid = tuple(f32((a[k] + b[k]) / 2) for k in range(3))
                extra.append((a, mid, b))
            else:
                # A sliver: a corner a hair off an edge.
                a, b = f[0], f[1]
                mid = tuple(f32((a[k] + b[k]) / 2 + 1e-7 * unit) for k in range(3))
                extra.append((a, b, mid))
        facets = facets + extra
        rng.shuffle(facets)
        return facets
    if family == "nonmanifold":
        parts = []
        for _ in range(rng.randint(1, 3)):
            kind = rng.choice(["book", "bowtie", "fan", "tetra-fan"])
            if kind == "book":
                parts.append(placed(rng, book(rng)))
            elif kind == "fan":
                parts.append(placed(rng, fan(rng, rng.random() < 0.5)))
            elif kind == "bowtie":
                a = fan(rng, rng.random() < 0.5)
                b = transform(fan(rng, rng.random() < 0.5), 1.0, (0, 0, 0), rotation(rng))
                va, fa = a
                vb, fb = b
                # b's centre is a's centre: two fans on one vertex.
                vb = [va[0]] + vb[1:]
                parts.append(placed(rng, (va + vb, fa + [(x + len(va), y + len(va), z + len(va)) for x, y, z in fb]), 0))
            else:
                # Several tetrahedra on one corner.
                v, f = [], []
                for j in range(rng.randint(2, 4)):
                    tv, tf = transform(tetra(), 1.0, (0, 0, 0), rotation(rng))
                    tv = [(0.0, 0.0, 0.0)] + tv[1:]
                    base = len(v)
                    v += tv
                    f += [(a + base, b + base, c + base) for a, b, c in tf]
                parts.append(placed(rng, (v, f)))
        facets = []
        for p in parts:
            facets += soup(p, unit)
        return facets
    if family == "touching":
        # Shells that touch at a point or along an edge (or share a face).
        first = box(rng, rng.randint(1, 2)) if rng.random() < 0.6 else tetra()
        v1, f1 = first
        how = rng.choice(["point", "edge", "face", "three"])
        shells = [first]
        if how == "point":
            shells.append(transform(first, 1.0, (1, 1, 1)))
        elif how == "edge":
            shells.append(transform(first, 1.0, (1, 1, 0)))
        elif how == "face":
            shells.append(transform(first, 1.0, (1, 0, 0)))
        else:
            shells.append(transform(first, 1.0, (1, 1, 1)))
            shells.append(transform(first, 1.0, (-1, -1, -1)))
            shells.append(transform(first, 1.0, (1, -1, 1)))
        rot = rotation(rng) if rng.random() < 0.3 else None
        facets = []
        for s in shells:
            facets += soup(transform(s, 1.0, (0, 0, 0), rot), unit)
        return facets
    if family == "closed":
        return soup(placed(rng, closed_shape(rng)), unit)
    if family == "open":
        facets = soup(placed(rng, rng.choice([closed_shape, height_field, fan])(rng)), unit)
        holes = rng.randint(1, max(1, len(facets) // 4))
        for _ in range(min(holes, len(facets) - 1)):
            facets.pop(rng.randrange(len(facets)))
        return facets
    # mixed
    facets = []
    for _ in range(rng.randint(2, 4)):
        facets += family_facets(rng, rng.choice(FAMILIES[:-1]), unit)
    return facets


MAX_FACETS = 400


def make_case(seed, index):
    """Everything about one case, from (seed, index) alone."""
    rng = random.Random("%d:%d" % (seed, index))
    family = rng.choice(FAMILIES)
    r = rng.random()
    scale = "unit" if r < 0.8 else ("tiny" if r < 0.9 else "huge")
    unit = {"unit": rng.choice([1.0, 1.0, 10.0, 250.0]), "tiny": rng.choice([1e-30, 3e-25, 1e-36]),
            "huge": rng.choice([1e30, 3e28, 1e37])}[scale]
    facets = family_facets(rng, family, unit)
    if len(facets) > MAX_FACETS:
        facets = facets[:MAX_FACETS]
    if not facets:
        facets = family_facets(rng, "closed", unit)
    # Facet order and corner rotation never change the surface.
    if rng.random() < 0.5:
        rng.shuffle(facets)
    if rng.random() < 0.3:
        facets = [f if rng.random() < 0.7 else (f[1], f[2], f[0]) for f in facets]
    offset = 0.0
    if scale == "unit" and rng.random() < 0.15:
        offset = f32(rng.choice([100.0, 1e4, -3e3]) * unit)
        facets = [tuple(tuple(f32(c + offset) for c in v) for v in f) for f in facets]

    fmt = "binary" if rng.random() < 0.5 else "ascii"
    data = binary_stl(facets) if fmt == "binary" else ascii_stl(facets, upper=rng.random() < 0.1)
    corrupt = None
    if rng.random() < 0.04:
        # A broken file: cut short, or one byte changed.
        corrupt = rng.choice(["cut", "byte"])
        if corrupt == "cut":
            data = data[:rng.randrange(len(data))]
        else:
            at = rng.randrange(len(data))
            data = data[:at] + bytes([rng.randrange(256)]) + data[at + 1:]

    # Tolerance: a fraction of the model's size, zero, negative, or extreme.
    coords = [c for f in facets for v in f for c in v]
    lo = [min(v[k] for f in facets for v in f) for k in range(3)]
    hi = [max(v[k] for f in facets for v in f) for k in range(3)]
    diag = math.sqrt(sum((hi[k] - lo[k]) ** 2 for k in range(3))) if coords else 1.0
    r = rng.random()
    if r < 0.1:
        tol = 0.0
    elif r < 0.15:
        tol = rng.choice([1e-12, 1e-6, 1e30, -1e-6])
    else:
        tol = diag * 10 ** rng.uniform(-4, 0) * (-1 if rng.random() < 0.2 else 1)
    tol = float("%.6g" % tol)
    method = rng.choice("lmh")
    args = ["-q" + method, "-t" + repr(tol)]
    r = rng.random()
    if r < 0.4:
        pass
    elif r < 0.5:
        args.append("-a" + rng.choice(["0", "-1", "1e-06", "word", "-45"]))
    else:
        args.append("-a" + "%.4g" % rng.uniform(-180, 360))
    solid = rng.random() < 0.3
    rng.shuffle(args)
    return {
        "seed": seed, "index": index, "family": family, "scale": scale, "format": fmt,
        "corrupt": corrupt, "facets": facets, "data": data, "tolerance": tol, "method": method,
        "args": args, "solid": solid,
    }


# ---- Running and judging one case ------------------------------------------------


class Judge:
    def __init__(self, opts):
        self.tool = os.path.abspath(opts.tool)
        self.measure = os.path.abspath(opts.measure)
        self.timeout = opts.timeout
        self.failures = opts.failures
        self.refused = opts.save_refused

    def run(self, argv, cwd, timeout):
        """(status or None on timeout, signal or None, stdout, stderr, seconds)."""
        start = time.monotonic()
        proc = subprocess.Popen(argv, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            out, err = proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            # The child leads a session of its own: end its group, and only it.
            try:
                os.killpg(proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            out, err = proc.communicate()
            return None, None, out.decode(errors="replace"), err.decode(errors="replace"), time.monotonic() - start
        seconds = time.monotonic() - start
        sig = -proc.returncode if proc.returncode < 0 else None
        return proc.returncode, sig, out.decode(errors="replace"), err.decode(errors="replace"), seconds

    def measure_json(self, original, reduced, cwd, step=None, tolerance=None):
        argv = [self.measure, original, reduced, "--json", "--threads", "1"]
        if step:
            argv += ["--step", repr(step)]
        if tolerance is not None:
            argv += ["--tolerance", repr(tolerance)]
        status, sig, out, err, _ = self.run(argv, cwd, max(self.timeout, 120))
        if status not in (0, 1, 3):
            return None, "FacetMeasure ended with %s: %s" % (status if sig is None else "signal %d" % sig, err.strip()[:300])
        return json.loads(out), None

    def check(self, case, work):
        """A list of (kind, detail) for every broken rule; empty when the case passes."""
        problems = []
        inp = os.path.join(work, "in.stl")
        with open(inp, "wb") as fh:
            fh.write(case["data"])
        argv = [self.tool, "in.stl", "-oout.stl"] + case["args"]
        if case["solid"]:
            argv.append("-ssolid.stl")
        case["argv"] = argv[1:]
        status, sig, out, err, seconds = self.run(argv, work, self.timeout)
        case["seconds"] = seconds
        # With FT_TRACE=1 in the environment a failed run names where it failed.
        traced = re.search(r"first failure at (\S+)", err)
        case["place"] = traced.group(1) if traced else None
        if any(mark in err for mark in SANITIZER_MARKS):
            problems.append(("sanitizer", err.strip()[-3000:]))
        if status is None:
            return problems + [("hang", "killed after %g s" % self.timeout)]
        if sig is not None:
            return problems + [("crash", "signal %d; stderr: %s" % (sig, err.strip()[-2000:]))]
        with open(inp, "rb") as fh:
            if fh.read() != case["data"]:
                problems.append(("input-modified", "the input file changed"))
        lines = out.splitlines(keepends=True)
        progress = [l for l in lines if l.startswith(PROGRESS_PREFIXES)]
        rest = [l for l in lines if not l.startswith(PROGRESS_PREFIXES)]
        if progress and case["method"] != "l":
            problems.append(("message", "progress lines from -q%s" % case["method"]))
        present = {n: os.path.exists(os.path.join(work, n)) for n in ("out.stl", "out.log", "solid.stl")}
        case["status"] = status
        if status not in (0, 255):
            problems.append(("status", "exit status %d" % status))
            return problems
        if status == 255:
            if rest != [FAILURE_MESSAGE] or (lines and lines[-1] != FAILURE_MESSAGE):
                problems.append(("message", "failure printed %r" % out[-500:]))
            if present["out.log"]:
                problems.append(("leftover", "a failed run wrote a report"))
            if present["out.stl"]:
                parsed = read_binary(open(os.path.join(work, "out.stl"), "rb").read())
                if not case["solid"]:
                    problems.append(("leftover", "a failed reduction left its output"))
                elif parsed is None or parsed[0] != len(parsed[1]):
                    problems.append(("leftover", "a failed extraction left an incomplete output"))
            return problems
        # Success.
        if rest:
            problems.append(("message", "success printed %r" % out[-500:]))
        if not present["out.log"]:
            problems.append(("report", "no report after success"))
        if not present["out.stl"]:
            return problems + [("output", "no output after success")]
        parsed = read_binary(open(os.path.join(work, "out.stl"), "rb").read())
        if parsed is None or parsed[0] != len(parsed[1]) or 84 + 50 * parsed[0] != os.path.getsize(
                os.path.join(work, "out.stl")):
            return problems + [("output", "output header count does not match its records")]
        problems += self.check_surface(case, work, parsed[1])
        if case["solid"]:
            problems += self.check_solid(case, work, present["solid.stl"])
        return problems

    def check_surface(self, case, work, reduced):
        problems = []
        parsed_in = read_binary(case["data"])
        # The tool reads what the generator wrote, float for float.
        facets = case["facets"]
        if case["corrupt"] is not None:
            if parsed_in is not None and case["format"] == "binary" and parsed_in[0] == len(parsed_in[1]):
                facets = parsed_in[1]
            else:
                return problems  # read as whatever the tool made of it: no reference
        kept = kept_facets(facets)
        with open(os.path.join(work, "ref.stl"), "wb") as fh:
            fh.write(binary_stl(kept))
        if not reduced and not kept:
            return problems
        if not kept:
            return problems + [("output", "facets out where assembly keeps none")]
        lo = [min(v[k] for f in kept for v in f) for k in range(3)]
        hi = [max(v[k] for f in kept for v in f) for k in range(3)]
        diag = math.sqrt(sum((hi[k] - lo[k]) ** 2 for k in range(3)))
        step = diag / 200 if diag > 0 and math.isfinite(diag) else None
        tol = case["tolerance"] if case["tolerance"] >= 0 else 0.0  # NaN too: nothing may go
        report, error = self.measure_json("ref.stl", "out.stl", work, step, tol)
        if report is None:
            return problems + [("measure", error)]
        if report["subset_violations"]:
            # Against the whole input, as the tool saw it.
            full, error = self.measure_json("in.stl", "out.stl", work, step)
            if full is None or full["subset_violations"]:
                problems.append(("subset", "%s output vertices not among the input's, first %s" % (
                    full["subset_violations"] if full else "?", (full or report)["subset_first"])))
        bound = report["original_to_reduced"]
        if report.get("verdict") == "within":
            case["distance"] = bound.get("upper")
        if report.get("verdict") == "beyond":
            problems.append(("distance", "original -> reduced proven above t %g: lower %s, upper %s" % (
                tol, bound.get("lower"), bound.get("upper"))))
        elif report.get("verdict") != "within":
            # Undecided: the tolerance lies within FacetMeasure's allowance or
            # its refinement limit. An output with the reference's facets is
            # at distance 0; anything else is counted apart, not as a failure.
            out = read_binary(open(os.path.join(work, "out.stl"), "rb").read())
            same = out is not None and sorted(tuple(sorted(f)) for f in out[1]) == sorted(
                tuple(sorted(f)) for f in kept)
            if not same:
                case["undecided"] = "lower %s, upper %s at t %g" % (bound.get("lower"), bound.get("upper"), tol)
        return problems

    def check_solid(self, case, work, present):
        if not present:
            return [("solid", "no solid file after success")]
        data = open(os.path.join(work, "solid.stl"), "rb").read()
        parsed = read_binary(data)
        if parsed is None or parsed[0] != len(parsed[1]) or 84 + 50 * parsed[0] != len(data):
            return [("solid", "solid file header count does not match its records")]
        if not parsed[1]:
            return []
        report, error = self.measure_json("solid.stl", "solid.stl", work, FLT_MAX)
        if report is None:
            return [("measure", error)]
        # Closed: every edge lies on two facets or more. Caps over holes of no
        # area are zero-area facets by design, which split FacetMeasure's shells
        # without opening the surface, so shells are not counted.
        o = report["original"]
        if o["boundary_edges"]:
            kind = "solid" if case["scale"] == "unit" else "solid-scale"
            return [(kind, "%d boundary edges in the solid file" % o["boundary_edges"])]
        return []

    def save(self, case, work, problems, folder=None):
        kinds = sorted({k for k, _ in problems})
        where = os.path.join(folder or self.failures, "%s-%d-%d" % ("+".join(kinds), case["seed"], case["index"]))
        shutil.rmtree(where, ignore_errors=True)
        os.makedirs(where)
        with open(os.path.join(where, "in.stl"), "wb") as fh:
            fh.write(case["data"])
        for name in ("out.stl", "solid.stl", "ref.stl"):
            if os.path.exists(os.path.join(work, name)):
                shutil.copy(os.path.join(work, name), os.path.join(where, name))
        with open(os.path.join(where, "args"), "w") as fh:
            fh.write(" ".join(a for a in case["argv"] if a not in ("in.stl", "-oout.stl")) + "\n")
        with open(os.path.join(where, "cmd.sh"), "w") as fh:
            fh.write("# seed %d case %d: family %s, scale %s, %s%s\n" % (
                case["seed"], case["index"], case["family"], case["scale"], case["format"],
                ", corrupt " + case["corrupt"] if case["corrupt"] else ""))
            fh.write("FacetTrim " + " ".join("'%s'" % a for a in case["argv"]) + "\n")
        with open(os.path.join(where, "reason.txt"), "w") as fh:
            for kind, detail in problems:
                fh.write("%s: %s\n" % (kind, detail))
        return where


def run_case(judge, case, keep):
    work = tempfile.mkdtemp(prefix="ft_pipe_")
    try:
        problems = judge.check(case, work)
        saved = judge.save(case, work, problems) if problems and judge.failures else None
        if not problems and judge.refused and case.get("status") == 255 and not case["corrupt"]:
            judge.save(case, work, [("refused", "exit 255 on an intact file")], judge.refused)
        return problems, saved
    finally:
        if not keep:
            shutil.rmtree(work, ignore_errors=True)


def regress_cases(folder):
    """Cases from DIR/*.stl with DIR/*.args: unit scale unless the args file's
    second line says otherwise."""
    cases = []
    for name in sorted(os.listdir(folder)):
        if not name.endswith(".stl"):
            continue
        stem = name[:-4]
        data = open(os.path.join(folder, name), "rb").read()
        lines = open(os.path.join(folder, stem + ".args")).read().splitlines()
        args = lines[0].split()
        scale = lines[1].strip() if len(lines) > 1 and lines[1].strip() else "unit"
        solid = any(a.startswith("-s") for a in args)
        args = [a for a in args if not a.startswith("-s")]
        parsed = read_binary(data)
        if parsed is not None and parsed[0] == len(parsed[1]) and len(data) - 84 - 50 * parsed[0] < 50:
            fmt, facets = "binary", parsed[1]
        else:
            fmt, facets = "ascii", parse_ascii(data)
        tol = 0.1
        method = "l"
        for a in args:
            if a.startswith("-t"):
                tol = float(a[2:])
            if a.startswith("-q"):
                method = a[2:]
        cases.append({"seed": 0, "index": len(cases), "name": stem, "family": "regression",
                      "scale": scale, "format": fmt, "corrupt": None, "facets": facets,
                      "data": data, "tolerance": tol, "method": method, "args": args,
                      "solid": solid})
    return cases


def parse_ascii(data):
    facets, corners = [], []
    for line in data.decode().splitlines():
        words = line.split()
        if words and words[0].lower() == "vertex":
            corners.append(tuple(f32(float(w)) for w in words[1:4]))
            if len(corners) == 3:
                facets.append(tuple(corners))
                corners = []
    return facets


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--tool", required=True, help="the built FacetTrim")
    p.add_argument("--measure", required=True, help="the built FacetMeasure")
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--cases", type=int, default=100)
    p.add_argument("--first", type=int, default=0, help="index of the first case")
    p.add_argument("--case", action="append", default=[], help="SEED:INDEX, one case (repeatable)")
    p.add_argument("--regress", help="folder of regression cases: X.stl with X.args")
    p.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    p.add_argument("--timeout", type=float, default=60.0, help="seconds before a case is a hang")
    p.add_argument("--failures", help="folder for failing cases")
    p.add_argument("--save-refused", help="folder for intact inputs that the tool refused (not failures)")
    p.add_argument("--keep", action="store_true", help="keep each case's work folder")
    p.add_argument("--quiet", action="store_true")
    opts = p.parse_args()
    for path in (opts.tool, opts.measure):
        if not os.access(path, os.X_OK):
            p.error("not an executable: " + path)

    cases = []
    if opts.regress:
        cases = regress_cases(opts.regress)
    elif opts.case:
        for c in opts.case:
            seed, index = c.split(":")
            cases.append((int(seed), int(index)))
    else:
        cases = [(opts.seed, i) for i in range(opts.first, opts.first + opts.cases)]
    judge = Judge(opts)
    if opts.failures:
        os.makedirs(opts.failures, exist_ok=True)

    def one(item):
        case = item if isinstance(item, dict) else make_case(*item)
        problems, saved = run_case(judge, case, opts.keep)
        return case, problems, saved

    start = time.monotonic()
    tally = {"cases": 0, "success": 0, "refused": 0}
    kinds = {}
    refused_by_family = {}
    refused_by_place = {}
    worst = (0.0, None)
    slowest = (0.0, None)
    undecided = []
    with ThreadPoolExecutor(max_workers=max(1, opts.jobs)) as pool:
        for case, problems, saved in pool.map(one, cases):
            tally["cases"] += 1
            label = case.get("name") or "%d:%d" % (case["seed"], case["index"])
            if case.get("status") == 0:
                tally["success"] += 1
            elif case.get("status") == 255:
                tally["refused"] += 1
                key = case["family"] + ("/corrupt" if case["corrupt"] else "")
                refused_by_family[key] = refused_by_family.get(key, 0) + 1
                if case.get("place"):
                    refused_by_place[case["place"]] = refused_by_place.get(case["place"], 0) + 1
            if case.get("distance") and case["tolerance"]:
                ratio = case["distance"] / abs(case["tolerance"])
                if ratio > worst[0]:
                    worst = (ratio, label)
            if case.get("undecided"):
                undecided.append("%s (%s)" % (label, case["undecided"]))
            if case.get("seconds", 0) > slowest[0]:
                slowest = (case["seconds"], label)
            for kind in sorted({k for k, _ in problems}):
                kinds[kind] = kinds.get(kind, 0) + 1
            if problems and not opts.quiet:
                print("FAIL %s (%s, %s, %s, %s): %s%s" % (
                    label, case["family"], case["scale"], case["format"], " ".join(case["argv"]),
                    "; ".join("%s: %s" % (k, d.splitlines()[0] if d else "") for k, d in problems),
                    " -> " + saved if saved else ""), flush=True)
    failed = sum(kinds.values())
    print("cases %d, succeeded %d, refused (exit 255) %d, failures by kind: %s" % (
        tally["cases"], tally["success"], tally["refused"],
        ", ".join("%s %d" % kv for kv in sorted(kinds.items())) or "none"))
    print("refusals by family: %s" % (", ".join("%s %d" % kv for kv in sorted(refused_by_family.items())) or "none"))
    if refused_by_place:
        print("refusals by first failure (FT_TRACE=1): %s" % ", ".join(
            "%s %d" % kv for kv in sorted(refused_by_place.items(), key=lambda kv: -kv[1])))
    at_zero = [u for u in undecided if u.endswith(" at t 0)")]
    others = [u for u in undecided if not u.endswith(" at t 0)")]
    print("undecided by FacetMeasure's allowance or limits, output not the input's facets: %d at t = 0, "
          "%d at t > 0%s" % (len(at_zero), len(others), (": " + "; ".join(others[:10])) if others else ""))
    print("largest certified upper bound / |t| where decided: %.4g (%s); slowest case %.2f s (%s); %.0f s in all" % (
        worst[0], worst[1], slowest[0], slowest[1], time.monotonic() - start))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
