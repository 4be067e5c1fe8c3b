#!/usr/bin/env python3
"""Reference data from real psi4 SCF jobs for the Molden/FCHK import tests.

Run from this folder with Debian's psi4 (1.3.2):

    PYTHONPATH=/usr/lib/x86_64-linux-gnu /usr/bin/python3 make_reference.py

Writes, per job NAME: NAME.molden, NAME.fchk (psi4's own writers), NAME.ref
(orbital values, density, shell-diagonal density and electrostatic potential at
seeded points) and NAME.info; plus validation.txt with the cross-checks below.
All psi4 scratch and output files go to a temporary directory.

Every number in the .ref files comes from psi4: basis-function values from
psi4.core.BasisFunctions, the density from psi4's RKS/UKSFunctions point
evaluation, the potential from psi4.core.ESPPropCalc. The Python evaluators in
this file (basis functions from the psi4 BasisSet object, Molden and FCHK
readers) are used only to cross-check those numbers and the written files.
"""

import atexit
import glob
import os
import re
import shutil
import sys
import tempfile
from math import comb, factorial, sqrt

import numpy as np

# scratch, psi4's output and the timer file psi4 writes at exit all go here;
# registered before psi4 is imported so that it is removed after psi4's own
# exit handlers have run
TMP = tempfile.mkdtemp(prefix="kalvex_psi4_")
atexit.register(shutil.rmtree, TMP, True)

import psi4  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))

# ---------------------------------------------------------------------------
# molecules (bohr); rotated and shifted so that no atom pair is parallel to a
# coordinate plane or axis
WATER = [("O", 0.137000, -0.211000, 0.089000),
         ("H", 0.598357, -0.620364, -1.596703),
         ("H", -1.254866, -1.329394, 0.452305)]
OH = [("O", 0.137000, -0.211000, 0.089000),
      ("H", 0.869036, 1.096893, 1.147534)]
CH2 = [("C", 0.137000, -0.211000, 0.089000),
       ("H", 1.004900, -0.302982, -1.738269),
       ("H", -1.409478, -1.224200, 0.953819)]
HF = [("F", 0.137000, -0.211000, 0.089000),
      ("H", 0.886373, 0.975325, 1.107264)]

# name, atoms, charge, multiplicity, reference, basis, puream, l of the
# extra "high angular momentum" virtual (None: no such orbital), seed
JOBS = [
    dict(name="water_cart", atoms=WATER, charge=0, mult=1, ref="rhf", basis="6-31G*", puream=False, hi_l=None, seed=101),
    dict(name="water_tz", atoms=WATER, charge=0, mult=1, ref="rhf", basis="cc-pVTZ", puream=True, hi_l=3, seed=102),
    dict(name="oh_uhf", atoms=OH, charge=0, mult=2, ref="uhf", basis="cc-pVTZ", puream=True, hi_l=3, seed=103),
    dict(name="ch2_cart", atoms=CH2, charge=0, mult=3, ref="uhf", basis="cc-pVTZ", puream=False, hi_l=3, seed=104),
    dict(name="hf_qz", atoms=HF, charge=0, mult=1, ref="rhf", basis="cc-pVQZ", puream=True, hi_l=4, seed=105),
    dict(name="oh_rohf", atoms=OH, charge=0, mult=2, ref="rohf", basis="cc-pVDZ", puream=True, hi_l=None, seed=107),
    dict(name="water_sp", atoms=WATER, charge=0, mult=1, ref="rhf", basis="6-31G*", puream=True, hi_l=None, seed=106, merge_sp=True),
]

NPOINTS = 40
NCLOSE = 8          # of which this many within 0.1..0.5 bohr of the heavy atom
LNAME = "spdfghi"

VALIDATION = []     # lines for validation.txt


def note(msg):
    print(msg)
    VALIDATION.append(msg)


# ---------------------------------------------------------------------------
# psi4 helpers

def run_scf(job, tmp):
    psi4.core.clean()
    psi4.core.clean_options()
    psi4.core.set_output_file(os.path.join(tmp, job["name"] + ".out"), False)
    lines = ["%d %d" % (job["charge"], job["mult"])]
    lines += ["%-2s %12.6f %12.6f %12.6f" % a for a in job["atoms"]]
    lines += ["units bohr", "symmetry c1", "no_reorient", "no_com"]
    mol = psi4.geometry("\n".join(lines), name=job["name"])
    psi4.set_options({"basis": job["basis"], "puream": job["puream"], "reference": job["ref"],
                      "scf_type": "pk", "e_convergence": 1e-10, "d_convergence": 1e-10,
                      "guess": "sad"})
    energy, wfn = psi4.energy("scf", molecule=mol, return_wfn=True)
    return energy, wfn


def _block(bs, pts):
    n = len(pts)
    ext = psi4.core.BasisExtents(bs, 0.0)      # delta 0: no shell is cut off
    vecs = [psi4.core.Vector.from_array(np.ascontiguousarray(pts[:, k])) for k in range(3)]
    vecs.append(psi4.core.Vector.from_array(np.ones(n)))
    blk = psi4.core.BlockOPoints(vecs[0], vecs[1], vecs[2], vecs[3], ext)
    assert blk.functions_local_to_global() == list(range(bs.nbf()))
    return blk, (vecs, ext)


def psi4_basis_values(bs, pts, chunk=2000):
    """psi4's own basis-function values, shape (npoints, nbf)."""
    out = []
    for s in range(0, len(pts), chunk):
        p = pts[s:s + chunk]
        blk, keep = _block(bs, p)
        bf = psi4.core.BasisFunctions(bs, len(p), bs.nbf())
        bf.set_deriv(0)     # needed: the constructor leaves the derivative level unset
        bf.compute_functions(blk)
        out.append(np.array(bf.basis_values()["PHI"])[:len(p), :bs.nbf()].copy())
    return np.vstack(out)


def psi4_density(wfn, pts, restricted, chunk=2000):
    """psi4's total density at the points through its DFT point functions."""
    bs = wfn.basisset()
    out = []
    for s in range(0, len(pts), chunk):
        p = pts[s:s + chunk]
        blk, keep = _block(bs, p)
        if restricted:
            f = psi4.core.RKSFunctions(bs, len(p), bs.nbf())
            f.set_deriv(0)
            f.set_pointers(wfn.Da())
            f.compute_points(blk)
            rho = np.array(f.point_values()["RHO_A"])[:len(p)].copy()   # RKS: total density
        else:
            f = psi4.core.UKSFunctions(bs, len(p), bs.nbf())
            f.set_deriv(0)
            f.set_pointers(wfn.Da(), wfn.Db())
            f.compute_points(blk)
            pv = f.point_values()
            rho = (np.array(pv["RHO_A"]) + np.array(pv["RHO_B"]))[:len(p)].copy()
        out.append(rho)
    return np.concatenate(out)


def psi4_esp(wfn, pts):
    esp = psi4.core.ESPPropCalc(wfn)
    v = esp.compute_esp_over_grid_in_memory(psi4.core.Matrix.from_array(np.ascontiguousarray(pts)))
    return np.array(v).copy()


def psi4_esp_file(wfn, pts, tmp):
    """The same through oeprop GRID_ESP (grid.dat -> grid_esp.dat in the working dir)."""
    np.savetxt(os.path.join(tmp, "grid.dat"), pts, fmt="%.12e")
    psi4.oeprop(wfn, "GRID_ESP")
    return np.loadtxt(os.path.join(tmp, "grid_esp.dat"))


def shell_table(bs):
    """per psi4 shell: (center index, l, first function, nfunction, pure)"""
    tab = []
    for i in range(bs.nshell()):
        sh = bs.shell(i)
        tab.append((bs.shell_to_center(i), sh.am, bs.shell_to_basis_function(i), sh.nfunction, sh.is_pure()))
    return tab


# ---------------------------------------------------------------------------
# independent evaluation (checks only)

def dfact(n):
    r = 1
    while n > 1:
        r *= n
        n -= 2
    return r


def psi4_cart_order(l):
    return [(l - i, i - j, j) for i in range(l + 1) for j in range(i + 1)]


def pure_order(l):
    ms = [0]
    for k in range(1, l + 1):
        ms += [k, -k]
    return ms


def solid_harmonic(l, m):
    """Real solid harmonic as {(lx,ly,lz): coefficient}, same angular norm as x^l
    (the usual closed formula with the (-1)^(t+v-vm) (1/4)^t binomial terms)."""
    am = abs(m)
    vm2 = 0 if m >= 0 else 1                 # 2*v_m
    norm = sqrt(2.0 * factorial(l + am) * factorial(l - am) / (2.0 if m == 0 else 1.0)) / (2 ** am * factorial(l))
    out = {}
    for t in range((l - am) // 2 + 1):
        for u in range(t + 1):
            for v2 in range(vm2, am + 1, 2):     # 2v runs vm2, vm2+2, ... <= am
                c = (-1) ** ((2 * t + v2 - vm2) // 2) * 0.25 ** t * comb(l, t) * comb(l - t, am + t) \
                    * comb(t, u) * comb(am, v2)
                key = (2 * t + am - 2 * u - v2, 2 * u + v2, l - 2 * t - am)
                out[key] = out.get(key, 0.0) + norm * c
    return out


def shell_values(d, l, exps, coefs, pure, order):
    """d: displacement (npts,3); coefs include primitive norms; cartesian
    components share the norm of x^l."""
    r2 = (d ** 2).sum(1)
    rad = sum(c * np.exp(-a * r2) for a, c in zip(exps, coefs))
    if pure and l >= 2:
        cols = []
        for m in pure_order(l):
            ang = sum(v * d[:, 0] ** a * d[:, 1] ** b * d[:, 2] ** c for (a, b, c), v in solid_harmonic(l, m).items())
            cols.append(ang * rad)
    elif pure and l == 1:      # psi4's own pure p order is z, x, y
        cols = [d[:, 2] * rad, d[:, 0] * rad, d[:, 1] * rad]
    else:
        cols = [d[:, 0] ** a * d[:, 1] ** b * d[:, 2] ** c * rad for a, b, c in order]
    return np.array(cols).T


def my_basis_values(bs, geom, pts, reverse=False):
    """Basis functions from the psi4 BasisSet object (exponents, psi4's
    normalised coefficients, psi4 orders). reverse: displacement atom - point."""
    cols = []
    for i in range(bs.nshell()):
        sh = bs.shell(i)
        d = pts - geom[bs.shell_to_center(i)]
        if reverse:
            d = -d
        cols.append(shell_values(d, sh.am, [sh.exp(k) for k in range(sh.nprimitive)],
                                 [sh.coef(k) for k in range(sh.nprimitive)], sh.is_pure(), psi4_cart_order(sh.am)))
    return np.hstack(cols)


# ----- Molden / FCHK readers (checks only)

MOLDEN_CART = {
    0: [(0, 0, 0)],
    1: [(1, 0, 0), (0, 1, 0), (0, 0, 1)],
    2: [(2, 0, 0), (0, 2, 0), (0, 0, 2), (1, 1, 0), (1, 0, 1), (0, 1, 1)],
    3: [(3, 0, 0), (0, 3, 0), (0, 0, 3), (1, 2, 0), (2, 1, 0), (2, 0, 1), (1, 0, 2), (0, 1, 2), (0, 2, 1), (1, 1, 1)],
    4: [(4, 0, 0), (0, 4, 0), (0, 0, 4), (3, 1, 0), (3, 0, 1), (1, 3, 0), (0, 3, 1), (1, 0, 3), (0, 1, 3),
        (2, 2, 0), (2, 0, 2), (0, 2, 2), (2, 1, 1), (1, 2, 1), (1, 1, 2)],
}
FCHK_CART = MOLDEN_CART     # what psi4 1.3.2 writes (checked up to f; its g order is the Molden one too)


def prim_norm(a, l):
    return (2 * a / np.pi) ** 0.75 * (4 * a) ** (l / 2) / sqrt(dfact(2 * l - 1))


def renormalised(exps, coefs, l):
    """coefficients of normalised primitives -> coefficients of raw Gaussians
    for a unit-normalised x^l component"""
    c = np.array([ci * prim_norm(a, l) for a, ci in zip(exps, coefs)])
    s = sum(c[i] * c[j] * (np.pi / (a + b)) ** 1.5 * dfact(2 * l - 1) / (2 * (a + b)) ** l
            for i, a in enumerate(exps) for j, b in enumerate(exps))
    return c / sqrt(s)


def file_basis_values(shells, pts, individual):
    """shells: (center, l, exps, coefs, pure, cart order); individual: each
    cartesian component normalised on its own (else all share the x^l norm).
    Returns values and the function index groups per shell."""
    cols, groups, k = [], [], 0
    for center, l, exps, coefs, pure, order in shells:
        v = shell_values(pts - center, l, exps, renormalised(exps, coefs, l), pure and l >= 2, order)
        if individual and not (pure and l >= 2):
            v = v * np.array([sqrt(dfact(2 * l - 1) / (dfact(2 * a - 1) * dfact(2 * b - 1) * dfact(2 * c - 1)))
                              for a, b, c in order])
        cols.append(v)
        groups.append(list(range(k, k + v.shape[1])))
        k += v.shape[1]
    return np.hstack(cols), groups


def read_molden(fn):
    lines = open(fn).read().splitlines()
    sec, atoms, gto, flags, mos, cur, au = None, [], {}, set(), [], None, True
    i = 0
    while i < len(lines):
        s = lines[i].strip()
        if s.startswith("["):
            sec = s[1:s.index("]")].upper()
            flags.add(sec)
            if sec == "ATOMS":
                au = "AU" in s.upper()
            i += 1
            continue
        if sec == "ATOMS" and s:
            p = s.split()
            atoms.append(np.array([float(x) for x in p[3:6]]) * (1.0 if au else 1.0 / 0.52917721067))
        elif sec == "GTO" and s:
            at = int(s.split()[0]) - 1
            gto[at] = []
            i += 1
            while i < len(lines) and lines[i].strip():
                q = lines[i].split()
                prims = []
                for _ in range(int(q[1])):
                    i += 1
                    prims.append([float(x.replace("D", "E")) for x in lines[i].split()])
                gto[at].append((q[0].lower(), np.array(prims)))
                i += 1
            continue
        elif sec == "MO" and s:
            if "=" in s:
                key, val = [t.strip() for t in s.split("=", 1)]
                if key == "Sym":
                    cur = {"coef": {}}
                    mos.append(cur)
                cur[key] = val
            else:
                p = s.split()
                cur["coef"][int(p[0]) - 1] = float(p[1])
        i += 1
    pd = bool(flags & {"5D", "5D7F", "5D10F"})
    pf = bool(flags & {"5D", "5D7F", "7F"})
    pg = "9G" in flags
    lmap = {"s": 0, "p": 1, "d": 2, "f": 3, "g": 4}
    shells = []
    for at in sorted(gto):
        for typ, prims in gto[at]:
            if typ == "sp":
                shells.append((atoms[at], 0, prims[:, 0], prims[:, 1], False, MOLDEN_CART[0]))
                shells.append((atoms[at], 1, prims[:, 0], prims[:, 2], False, MOLDEN_CART[1]))
            else:
                l = lmap[typ]
                shells.append((atoms[at], l, prims[:, 0], prims[:, 1], {2: pd, 3: pf, 4: pg}.get(l, False),
                               MOLDEN_CART[l]))
    ntype = [typ for at in sorted(gto) for typ, _ in gto[at]]
    return shells, ntype, mos


def parse_fchk(fn):
    """ordered list of [key, type, value(s) or None, raw lines]"""
    lines = open(fn).read().splitlines()
    out = [["__title__", None, None, lines[:2]]]
    i = 2
    while i < len(lines):
        m = re.match(r"^(\S.{0,41}?)\s+([IRC])\s+(N=)?\s*(\S+)\s*$", lines[i])
        assert m, lines[i]
        key, typ = m.group(1).strip(), m.group(2)
        raw = [lines[i]]
        if m.group(3):
            n = int(m.group(4))
            vals = []
            while len(vals) < n:
                i += 1
                raw.append(lines[i])
                vals += lines[i].split()
            val = np.array(vals, dtype=float if typ == "R" else int)
        else:
            val = float(m.group(4)) if typ == "R" else int(m.group(4))
        out.append([key, typ, val, raw])
        i += 1
    return out


def fchk_dict(parsed):
    return {e[0]: e[2] for e in parsed[1:]}


def fchk_shells(d):
    shells, off = [], 0
    xyz = d["Coordinates of each shell"].reshape(-1, 3)
    for k, t in enumerate(d["Shell types"]):
        n = d["Number of primitives per shell"][k]
        e = d["Primitive exponents"][off:off + n]
        c = d["Contraction coefficients"][off:off + n]
        if t == -1:
            shells.append((xyz[k], 0, e, c, False, FCHK_CART[0]))
            shells.append((xyz[k], 1, e, d["P(S=P) Contraction coefficients"][off:off + n], False, FCHK_CART[1]))
        else:
            shells.append((xyz[k], abs(t), e, c, t < -1, FCHK_CART[abs(t)]))
        off += n
    return shells


def unpack_tri(tri, n):
    P = np.zeros((n, n))
    P[np.tril_indices(n)] = tri       # row-major lower triangle
    return P + np.tril(P, -1).T


# ---------------------------------------------------------------------------
# sp merge (water_sp)

NFUNC_MOLDEN = {"s": 1, "p": 3, "sp": 4}


def molden_nfunc(typ, flags):
    l = "spdfg".index(typ)
    pure = {2: "5D" in flags or "5D7F" in flags or "5D10F" in flags,
            3: "5D" in flags or "5D7F" in flags or "7F" in flags, 4: "9G" in flags}.get(l, False)
    return 2 * l + 1 if pure else (l + 1) * (l + 2) // 2


def sp_pairs(shell_list):
    """shell_list: [(type, exponents)] of one atom -> {s index: p index}"""
    pairs, used = {}, set()
    for i, (ti, ei) in enumerate(shell_list):
        if ti != "s":
            continue
        for j, (tj, ej) in enumerate(shell_list):
            if tj == "p" and j not in used and len(ei) == len(ej) and np.array_equal(ei, ej):
                pairs[i] = j
                used.add(j)
                break
    return pairs


def merge_molden(src, dst):
    """Rewrite psi4's Molden file with each same-atom s/p pair of identical
    exponents as one sp shell; [MO] rows follow the new function order.
    Returns the new->old function permutation."""
    lines = open(src).read().splitlines()
    flags = {l.strip()[1:l.strip().index("]")].upper() for l in lines if l.strip().startswith("[")}
    g0 = next(i for i, l in enumerate(lines) if l.strip().upper() == "[GTO]")
    g1 = next(i for i in range(g0 + 1, len(lines)) if lines[i].strip().startswith("["))
    # parse [GTO] keeping the text
    atoms, i = [], g0 + 1
    while i < g1:
        if not lines[i].strip():
            i += 1
            continue
        head, shells = lines[i], []
        i += 1
        while i < g1 and lines[i].strip():
            q = lines[i].split()
            n = int(q[1])
            prim = lines[i + 1:i + 1 + n]
            shells.append(dict(type=q[0].lower(), n=n, scale=q[2], prim=prim, raw=lines[i],
                               exps=np.array([float(p.split()[0]) for p in prim])))
            i += n + 1
        atoms.append((head, shells))
    out_gto, perm, old = [], [], 0
    for head, shells in atoms:
        starts = []
        for sh in shells:
            starts.append(old)
            old += molden_nfunc(sh["type"], flags)
        pairs = sp_pairs([(sh["type"], sh["exps"]) for sh in shells])
        dropped = set(pairs.values())
        out_gto.append(head)
        for k, sh in enumerate(shells):
            if k in dropped:
                continue
            if k in pairs:
                p = shells[pairs[k]]
                out_gto.append(" %-2s%4d  %s" % ("sp", sh["n"], sh["scale"]))
                for ls, lp in zip(sh["prim"], p["prim"]):
                    out_gto.append("%s %20s" % (ls, lp.split()[1]))
                perm += [starts[k]] + list(range(starts[pairs[k]], starts[pairs[k]] + 3))
            else:
                out_gto.append(sh["raw"])
                out_gto += sh["prim"]
                perm += list(range(starts[k], starts[k] + molden_nfunc(sh["type"], flags)))
        out_gto.append("")
    nbf = old
    assert sorted(perm) == list(range(nbf))
    inv = {o: n for n, o in enumerate(perm)}
    out = lines[:g0 + 1] + out_gto + lines[g1:]
    # [MO] rows
    m0 = next(i for i, l in enumerate(out) if l.strip().upper() == "[MO]")
    res, block = out[:m0 + 1], []

    def flush():
        for new, txt in sorted(block):
            res.append("%3d%s" % (new + 1, txt))
        block.clear()

    for l in out[m0 + 1:]:
        s = l.strip()
        mm = re.match(r"^\s*(\d+)(\s+\S+\s*)$", l)
        if mm and "=" not in s:
            block.append((inv[int(mm.group(1)) - 1], mm.group(2)))
        else:
            flush()
            res.append(l)
    flush()
    open(dst, "w").write("\n".join(res) + "\n")
    return perm


def fchk_lines(key, typ, val):
    if np.ndim(val) == 0:
        return ["%-43s%s%17d" % (key, typ, val)] if typ == "I" else None
    n = len(val)
    out = ["%-43s%s   N=%12d" % (key, typ, n)]
    if typ == "I":
        for s in range(0, n, 6):
            out.append("".join("%12d" % v for v in val[s:s + 6]))
    else:
        for s in range(0, n, 5):
            out.append("".join("%16.8e" % v for v in val[s:s + 5]))
    return out


def merge_fchk(src, dst):
    """Same merge in FCHK terms: shell type -1, s coefficients in
    'Contraction coefficients', p coefficients in 'P(S=P) Contraction
    coefficients', MO coefficients and densities in the new function order."""
    parsed = parse_fchk(src)
    # the rewriter must reproduce psi4's own text for every array it touches
    for key, typ, val, raw in parsed[1:]:
        if np.ndim(val) == 1 or typ == "I":
            assert fchk_lines(key, typ, val) == raw, key
    d = fchk_dict(parsed)
    nbf = d["Number of basis functions"]
    types, nprim = list(d["Shell types"]), list(d["Number of primitives per shell"])
    amap, xyz = list(d["Shell to atom map"]), d["Coordinates of each shell"].reshape(-1, 3)
    offs = np.concatenate([[0], np.cumsum(nprim)])
    exps, coefs = d["Primitive exponents"], d["Contraction coefficients"]
    nf = {0: 1, 1: 3, -1: 4}
    fstart, f = [], 0
    for t in types:
        fstart.append(f)
        f += nf.get(t, 2 * abs(t) + 1 if t < 0 else (t + 1) * (t + 2) // 2)
    assert f == nbf
    new_types, new_nprim, new_map, new_xyz, new_exp, new_c, new_pc, perm = [], [], [], [], [], [], [], []
    for atom in sorted(set(amap)):
        idx = [k for k in range(len(types)) if amap[k] == atom]
        tl = [({0: "s", 1: "p"}.get(types[k], "x"), exps[offs[k]:offs[k + 1]]) for k in idx]
        pairs = sp_pairs(tl)
        dropped = set(pairs.values())
        for a, k in enumerate(idx):
            if a in dropped:
                continue
            e = exps[offs[k]:offs[k + 1]]
            new_nprim.append(nprim[k])
            new_map.append(atom)
            new_xyz.append(xyz[k])
            new_exp += list(e)
            new_c += list(coefs[offs[k]:offs[k + 1]])
            if a in pairs:
                p = idx[pairs[a]]
                assert np.array_equal(xyz[k], xyz[p])
                new_types.append(-1)
                new_pc += list(coefs[offs[p]:offs[p + 1]])
                perm += [fstart[k]] + list(range(fstart[p], fstart[p] + 3))
            else:
                new_types.append(types[k])
                new_pc += [0.0] * nprim[k]
                perm += list(range(fstart[k], fstart[k] + nf.get(types[k], 2 * abs(types[k]) + 1
                                                                   if types[k] < 0 else (types[k] + 1) * (types[k] + 2) // 2)))
    assert sorted(perm) == list(range(nbf))
    perm = np.array(perm)
    rep = {
        "Number of primitive shells": ("I", sum(new_nprim)),
        "Number of contracted shells": ("I", len(new_types)),
        "Shell types": ("I", np.array(new_types)),
        "Number of primitives per shell": ("I", np.array(new_nprim)),
        "Shell to atom map": ("I", np.array(new_map)),
        "Primitive exponents": ("R", np.array(new_exp)),
        "Contraction coefficients": ("R", np.array(new_c)),
        "Coordinates of each shell": ("R", np.array(new_xyz).ravel()),
    }
    touched = set()
    out = list(parsed[0][3])
    for key, typ, val, raw in parsed[1:]:
        if key in rep:
            out += fchk_lines(key, *rep[key])
            touched.add(key)
            if key == "Contraction coefficients":
                out += fchk_lines("P(S=P) Contraction coefficients", "R", np.array(new_pc))
        elif key.endswith("MO coefficients"):
            C = val.reshape(-1, nbf)[:, perm]
            out += fchk_lines(key, typ, C.ravel())
            touched.add(key)
        elif key.endswith("Density") and np.ndim(val) == 1 and len(val) == nbf * (nbf + 1) // 2:
            P = unpack_tri(val, nbf)[np.ix_(perm, perm)]
            out += fchk_lines(key, typ, P[np.tril_indices(nbf)])
            touched.add(key)
        else:
            assert np.ndim(val) == 0 or len(val) not in (nbf, nbf * nbf, nbf * (nbf + 1) // 2) \
                or "Orbital Energies" in key, "array %s not handled" % key
            out += raw
    assert set(rep) <= touched
    open(dst, "w").write("\n".join(out) + "\n")
    return perm, touched


def pure_split(tab, nbf, l_hi):
    """Change of basis within each cartesian shell of l = l_hi to its 2l+1
    solid harmonics plus r^2 times the cartesian functions of l-2 (the
    lower-l part a cartesian shell carries); identity elsewhere. Returns the
    matrix (old functions -> new) and the mask of the true l_hi functions."""
    M = np.eye(nbf)
    is_hi = np.zeros(nbf, dtype=bool)
    for c, l, f0, nf, pure in tab:
        if l != l_hi:
            continue
        if pure:
            is_hi[f0:f0 + nf] = True
            continue
        order = psi4_cart_order(l)
        cols = []
        for m in pure_order(l):
            sh = solid_harmonic(l, m)
            cols.append([sh.get(o, 0.0) for o in order])
        for a, b, cc in psi4_cart_order(l - 2):
            v = np.zeros(len(order))
            for k in range(3):
                e = [a, b, cc]
                e[k] += 2
                v[order.index(tuple(e))] += 1.0
            cols.append(v)
        M[f0:f0 + nf, f0:f0 + nf] = np.array(cols).T
        is_hi[f0:f0 + 2 * l + 1] = True
    return M, is_hi


# ---------------------------------------------------------------------------

def make_points(geom, heavy, seed):
    rng = np.random.default_rng(seed)
    pts = []
    while len(pts) < NPOINTS:
        if len(pts) < NCLOSE:
            at, r = heavy, rng.uniform(0.1, 0.5)
        else:
            at = heavy if rng.random() < 0.5 else int(rng.integers(len(geom)))
            r = rng.uniform(0.1, 3.0)
        v = rng.normal(size=3)
        p = np.round(geom[at] + r * v / np.linalg.norm(v), 6)
        if np.min(np.linalg.norm(geom - p, axis=1)) < 0.05 or np.min(np.abs(p)) < 1e-3:
            continue
        pts.append(p)
    return np.array(pts)


def read_cube(fn, geom, spacing, overage):
    lines = open(fn).read().splitlines()
    nat = int(lines[2].split()[0])
    origin = np.array([float(x) for x in lines[2].split()[1:4]])
    n, ax = [], []
    for k in range(3):
        q = lines[3 + k].split()
        n.append(int(q[0]))
        ax.append(np.array([float(x) for x in q[1:4]]))
    # the header prints the origin with 6 decimals; psi4 places it at
    # min - overage - (N h - extent)/2 with N = ceil(extent/h): use that exact value
    lo, hi = geom.min(0) - overage, geom.max(0) + overage
    N = np.ceil((hi - lo) / spacing)
    exact = lo - (N * spacing - (hi - lo)) / 2
    assert np.all(np.abs(exact - origin) < 1.0001e-6) and list(N.astype(int) + 1) == n, (exact, origin)
    origin = exact
    vals = np.array(" ".join(lines[6 + abs(nat):]).split(), dtype=float)
    I, J, K = np.meshgrid(range(n[0]), range(n[1]), range(n[2]), indexing="ij")
    pts = origin + I.reshape(-1, 1) * ax[0] + J.reshape(-1, 1) * ax[1] + K.reshape(-1, 1) * ax[2]
    return pts, vals


def cube_check(wfn, job, orbs, tmp):
    """psi4 cubeprop on a coarse grid: total density and the listed orbitals."""
    cdir = os.path.join(tmp, "cube_" + job["name"])
    os.makedirs(cdir)
    wanted = [k for k in orbs["a"]] + [-k for k in orbs.get("b", [])]
    psi4.set_options({"cubeprop_tasks": ["density", "orbitals"], "cubeprop_orbitals": wanted,
                      "cubic_grid_spacing": [0.3, 0.3, 0.3], "cubic_grid_overage": [2.0, 2.0, 2.0],
                      "cubeprop_filepath": cdir, "cubic_basis_tolerance": 1e-30})
    psi4.cubeprop(wfn)
    bs = wfn.basisset()
    worst_rel, worst_abs, npts = 0.0, 0.0, 0
    phi = None
    D = np.array(wfn.Da()) + np.array(wfn.Db())
    jobs = [("Dt.cube", None)] + [("Psi_a_%d_*.cube" % k, ("a", k)) for k in orbs["a"]] \
        + [("Psi_b_%d_*.cube" % k, ("b", k)) for k in orbs.get("b", [])]
    for pat, what in jobs:
        fn = glob.glob(os.path.join(cdir, pat))
        assert len(fn) == 1, pat
        pts, vals = read_cube(fn[0], np.array(wfn.molecule().geometry()), 0.3, 2.0)
        if phi is None:
            phi = psi4_basis_values(bs, pts)
            npts = len(pts)
        if what is None:
            mine = np.einsum("pi,ij,pj->p", phi, D, phi)
        else:
            C = np.array(wfn.Ca() if what[0] == "a" else wfn.Cb())
            mine = phi @ C[:, what[1] - 1]
        big = np.abs(mine) > 1e-8
        worst_abs = max(worst_abs, np.abs(vals - mine).max())
        rel = np.abs(vals - mine)[big] / np.abs(mine[big])
        worst_rel = max(worst_rel, rel.max())
    return npts, worst_abs, worst_rel


# ---------------------------------------------------------------------------

def do_job(job, tmp):
    name = job["name"]
    energy, wfn = run_scf(job, tmp)
    bs, mol = wfn.basisset(), wfn.molecule()
    geom = np.array(mol.geometry())
    assert np.allclose(geom, np.array([a[1:] for a in job["atoms"]]), atol=1e-12, rtol=0)
    nbf, na, nb = bs.nbf(), wfn.nalpha(), wfn.nbeta()
    assert wfn.nmo() == nbf and bs.has_puream() == job["puream"]
    restricted = job["ref"] == "rhf"
    C = {"a": np.array(wfn.Ca())}
    eps = {"a": np.array(wfn.epsilon_a())}
    nocc = {"a": na}
    if not restricted:
        C["b"], eps["b"], nocc["b"] = np.array(wfn.Cb()), np.array(wfn.epsilon_b()), nb
    for s in eps:
        assert np.all(np.diff(eps[s]) >= 0)
    tab = shell_table(bs)
    lvec = np.zeros(nbf, dtype=int)
    for c, l, f0, nf, pure in tab:
        lvec[f0:f0 + nf] = l

    # files written by psi4
    stem = name + "_plain" if job.get("merge_sp") else name
    psi4.molden(wfn, os.path.join(HERE, stem + ".molden"), dovirtual=True)
    psi4.fchk(wfn, os.path.join(HERE, stem + ".fchk"))

    # shell groups for rho_shell
    groups = [list(range(f0, f0 + nf)) for c, l, f0, nf, pure in tab]
    if job.get("merge_sp"):
        perm_m = merge_molden(os.path.join(HERE, stem + ".molden"), os.path.join(HERE, name + ".molden"))
        perm_f, touched = merge_fchk(os.path.join(HERE, stem + ".fchk"), os.path.join(HERE, name + ".fchk"))
        merged = []
        for atom in range(mol.natom()):
            idx = [k for k in range(len(tab)) if tab[k][0] == atom]
            tl = [({0: "s", 1: "p"}.get(tab[k][1], "x"),
                   np.array([bs.shell(k).exp(j) for j in range(bs.shell(k).nprimitive)])) for k in idx]
            pairs = sp_pairs(tl)
            for a, k in enumerate(idx):
                if a in pairs.values():
                    continue
                g = list(groups[k]) + (list(groups[idx[pairs[a]]]) if a in pairs else [])
                merged.append(g)
        groups = merged
        same = list(perm_m) == list(range(nbf)) and list(perm_f) == list(range(nbf))
        note("%s: merged %d s/p pairs; function order %s; fchk arrays rewritten: %s" % (
            name, len(tab) - len(groups), "unchanged (psi4 puts each p shell right after its s shell)"
            if same else "permuted", ", ".join(sorted(touched))))
    assert sorted(sum(groups, [])) == list(range(nbf))

    # orbitals to list
    orbs, hi = {}, {}
    S = np.array(wfn.S())
    if job["hi_l"] is not None:
        M, is_hi = pure_split(tab, nbf, job["hi_l"])
        Minv = np.linalg.inv(M)
        S_new = M.T @ S @ M
    for s in C:
        n = nocc[s]
        ks = [1, n - 1, n, n + 1, n + 2]
        if job["hi_l"] is not None:
            Cv = Minv @ C[s][:, n:]
            frac = ((Cv * (S_new @ Cv))[is_hi, :]).sum(0)    # Mulliken share on the l = hi_l functions
            # only orbitals at least 1e-4 hartree away from every other one, so
            # that the choice does not depend on a rotation within a degenerate pair
            e = eps[s]
            alone = np.array([np.min(np.abs(np.delete(e, j) - e[j])) > 1e-4 for j in range(n, len(e))])
            frac = np.where(alone, frac, -1.0)
            k = n + 1 + int(np.argmax(frac))
            hi[s] = (k, float(frac.max()))
            ks.append(k)
        orbs[s] = sorted(set(ks), key=ks.index)

    heavy = int(np.argmax([mol.Z(i) for i in range(mol.natom())]))
    pts = make_points(geom, heavy, job["seed"])

    # psi4 values
    phi = psi4_basis_values(bs, pts)
    sign = (-1.0) ** lvec
    cols, names = [pts[:, 0], pts[:, 1], pts[:, 2]], ["x", "y", "z"]
    for s in C:
        for k in orbs[s]:
            cols += [phi @ C[s][:, k - 1], (phi * sign) @ C[s][:, k - 1]]
            names += ["%s%d_std" % (s, k), "%s%d_grid" % (s, k)]
    rho = psi4_density(wfn, pts, restricted)
    def shell_diag(groups, values):
        out = np.zeros(len(pts))
        for s in (["a", "b"] if not restricted else ["a"]):
            Cocc = C[s][:, :nocc[s]]
            for g in groups:
                out += ((values[:, g] @ Cocc[g, :]) ** 2).sum(1) * (2.0 if restricted else 1.0)
        return out

    psi4_shells = [list(range(f0, f0 + nf)) for c, l, f0, nf, pure in tab]
    rho_shell = shell_diag(groups, phi)
    rho_shell_psi4_shells = shell_diag(psi4_shells, phi)
    # With odd-l functions negated only shells mixing l (sp) change: their s-p cross term flips.
    rho_shell_grid = shell_diag(groups, phi * sign)
    rho_shell_grid_psi4_shells = shell_diag(psi4_shells, phi * sign)
    esp = psi4_esp(wfn, pts)
    cols += [rho, rho_shell, rho_shell_grid, esp]
    names += ["rho", "rho_shell", "rho_shell_grid", "esp"]
    table = np.array(cols).T
    col = {n: table[:, i] for i, n in enumerate(names)}

    # ---- cross-checks
    D = np.array(wfn.Da()) + np.array(wfn.Db())
    mine = my_basis_values(bs, geom, pts)
    dev_phi = np.abs(mine - phi).max()
    mine_rev = my_basis_values(bs, geom, pts, reverse=True)
    dev_grid = max(np.abs(mine_rev @ C[s][:, k - 1] - col["%s%d_grid" % (s, k)]).max() for s in C for k in orbs[s])
    dev_rho_mine = np.abs(np.einsum("pi,ij,pj->p", mine, D, mine) - rho).max()
    dev_rho_phi = np.abs(np.einsum("pi,ij,pj->p", phi, D, phi) - rho).max()
    esp_file = psi4_esp_file(wfn, pts, tmp)
    dev_esp = np.abs(esp_file - esp).max()
    note("%s: psi4 BasisFunctions vs own evaluation (max |dphi|) %.2e; grid columns vs own evaluation "
         "with displacement atom-point %.2e" % (name, dev_phi, dev_grid))
    note("%s: rho (psi4 point functions) vs phi.D.phi with psi4 phi %.2e, with own phi %.2e (max rho %.3e)"
         % (name, dev_rho_phi, dev_rho_mine, rho.max()))
    note("%s: esp in memory vs oeprop GRID_ESP file (10 decimals) %.2e" % (name, dev_esp))
    assert dev_phi < 1e-12 and dev_grid < 1e-10 and dev_rho_mine < 1e-10 and dev_rho_phi < 1e-10 and dev_esp < 2e-10

    # the written files describe the same orbitals
    def check_files(mfile, ffile, label):
        shells, _, mos = read_molden(mfile)
        chi, g = file_basis_values(shells, pts, individual=False)
        spins = {"a": [m for m in mos if m["Spin"] == "Alpha"], "b": [m for m in mos if m["Spin"] == "Beta"]}
        dm = 0.0
        for s in C:
            for k in orbs[s]:
                cv = np.array([spins[s][k - 1]["coef"].get(i, 0.0) for i in range(chi.shape[1])])
                dm = max(dm, np.abs(chi @ cv - col["%s%d_std" % (s, k)]).max())
        # rho_shell from the Molden file's own shells
        rs = np.zeros(len(pts))
        for s in (["a", "b"] if not restricted else ["a"]):
            Cm = np.array([[mo["coef"].get(i, 0.0) for i in range(chi.shape[1])] for mo in spins[s][:nocc[s]]]).T
            for gg in (merge_groups(g, _) if "sp" in _ else g):
                rs += ((chi[:, gg] @ Cm[gg, :]) ** 2).sum(1) * (2.0 if restricted else 1.0)
        drs = np.abs(rs - (rho_shell if "sp" in _ or not job.get("merge_sp") else rho_shell_psi4_shells)).max()
        d = fchk_dict(parse_fchk(ffile))
        chi, g = file_basis_values(fchk_shells(d), pts, individual=True)
        df = 0.0
        for s in C:
            Cf = d["Alpha MO coefficients" if s == "a" else "Beta MO coefficients"].reshape(-1, nbf).T
            for k in orbs[s]:
                df = max(df, np.abs(chi @ Cf[:, k - 1] - col["%s%d_std" % (s, k)]).max())
        P = unpack_tri(d["Total SCF Density"], nbf)
        dd = np.abs(np.einsum("pi,ij,pj->p", chi, P, chi) - rho).max()
        if "Spin SCF Density" in d:
            P = unpack_tri(d["Spin SCF Density"], nbf)
            Ds = np.array(wfn.Da()) - np.array(wfn.Db())
            dd = max(dd, np.abs(np.einsum("pi,ij,pj->p", chi, P, chi)
                                - np.einsum("pi,ij,pj->p", phi, Ds, phi)).max())
        note("%s: %s: orbitals from Molden %.2e, rho_shell from Molden shells %.2e; orbitals from FCHK %.2e, "
             "rho (and spin density) from FCHK densities %.2e" % (name, label, dm, drs, df, dd))
        assert dm < 1e-11 and drs < 1e-10 and df < 1e-6 and dd < 1e-6

    def merge_groups(g, types):
        # sp shells appear as two groups (s, p) in the reader: join them back
        out, k = [], 0
        for t in types:
            if t == "sp":
                out.append(g[k] + g[k + 1])
                k += 2
            else:
                out.append(g[k])
                k += 1
        return out

    if job.get("merge_sp"):
        check_files(os.path.join(HERE, stem + ".molden"), os.path.join(HERE, stem + ".fchk"), "plain files")
        check_files(os.path.join(HERE, name + ".molden"), os.path.join(HERE, name + ".fchk"), "merged files")
    else:
        check_files(os.path.join(HERE, name + ".molden"), os.path.join(HERE, name + ".fchk"), "files")

    npts, cabs, crel = cube_check(wfn, job, orbs, tmp)
    note("%s: cubeprop (%d points, values printed with 6 digits) vs psi4 phi: max abs %.2e, max rel %.2e"
         % (name, npts, cabs, crel))
    assert crel < 5.01e-6

    # ---- write .ref and .info
    method = job["ref"].upper()
    lname = {None: None, 3: "f", 4: "g"}[job["hi_l"]]
    def write_ref(fname, table, merged, files):
        with open(os.path.join(HERE, fname), "w") as fh:
            fh.write("# job %s: %s/%s, %s, charge %d, multiplicity %d, psi4 %s, scf_type pk, C1, bohr\n"
                     % (name, method, job["basis"], "spherical (puream true)" if job["puream"] else
                        "cartesian (puream false)", job["charge"], job["mult"], psi4.__version__))
            fh.write("# files: %s\n" % files)
            fh.write("# x y z: point (bohr). aK/bK: alpha/beta orbital K, 1-based in energy order within its spin\n")
            fh.write("# _std: sum_mu C(mu,K) phi_mu(r), phi with displacement point - atom (psi4 BasisFunctions)\n")
            fh.write("# _grid: the same with every basis function of odd l negated (displacement atom - point)\n")
            fh.write("# rho: total density (alpha + beta), psi4 point functions\n")
            fh.write("# rho_shell: sum over spins, occupied orbitals and shells of (sum_{mu in shell} C phi)^2%s\n"
                     % (" (an s shell and the p shell with the same exponents count as one sp shell)" if merged
                        else " (psi4's shells)"))
            fh.write("# rho_shell_grid: rho_shell with every basis function of odd l negated (displacement atom - point)\n")
            fh.write("# esp: nuclear minus electronic electrostatic potential (hartree/e), psi4 ESPPropCalc\n")
            for s in C:
                fh.write("# %s orbitals: %s (occupied %d%s)\n" % (
                    {"a": "alpha", "b": "beta"}[s], " ".join(map(str, orbs[s])), nocc[s],
                    "; orbital %d: largest Mulliken %s share (%.4f) of the non-degenerate virtuals"
                    % (hi[s][0], lname, hi[s][1]) if s in hi else ""))
            fh.write(" ".join(names) + "\n")
            for row in table:
                fh.write(" ".join("%.12e" % v for v in row) + "\n")

    write_ref(name + ".ref", table, job.get("merge_sp"), "%s.molden, %s.fchk" % (name, name))
    if job.get("merge_sp"):
        t2 = table.copy()
        t2[:, names.index("rho_shell")] = rho_shell_psi4_shells
        t2[:, names.index("rho_shell_grid")] = rho_shell_grid_psi4_shells
        write_ref(stem + ".ref", t2, False, "%s.molden, %s.fchk (psi4's split s and p shells)" % (stem, stem))
    info = [("job", name), ("method", method), ("basis", job["basis"]), ("natoms", mol.natom()),
            ("nbasis", nbf), ("nshell", bs.nshell()), ("puream", str(bs.has_puream()).lower()),
            ("nalpha", na), ("nbeta", nb), ("multiplicity", mol.multiplicity()),
            ("charge", mol.molecular_charge()), ("scf_energy", "%.12f" % energy)]
    for s in C:
        info.append(("orbitals_" + {"a": "alpha", "b": "beta"}[s], " ".join(map(str, orbs[s]))))
        if s in hi:
            info.append(("%s_orbital_%s" % (lname, {"a": "alpha", "b": "beta"}[s]), hi[s][0]))
            info.append(("%s_share_%s" % (lname, {"a": "alpha", "b": "beta"}[s]), "%.6f" % hi[s][1]))
        for k in orbs[s]:
            info.append(("energy_%s%d" % (s, k), "%.12f" % eps[s][k - 1]))
    if job.get("merge_sp"):
        info.append(("nshell_merged", len(groups)))
    with open(os.path.join(HERE, name + ".info"), "w") as fh:
        for k, v in info:
            fh.write("%s = %s\n" % (k, v))
    note("%s: E = %.10f, nbf %d, orbitals %s" % (name, energy, nbf, {s: orbs[s] for s in C}))
    for s in C:
        for k in orbs[s]:
            gap, j = min((abs(eps[s][k - 1] - eps[s][j]), j) for j in range(nbf) if j != k - 1)
            if gap < 1e-4:
                note("%s: %s%d is degenerate with %s%d (energy gap %.1e): any rotation within the pair is an "
                     "equally valid SCF solution; the .ref values follow the coefficients in the files"
                     % (name, s, k, s, j + 1, gap))


def main():
    psi4.set_num_threads(1)
    psi4.set_memory("2 GB")
    os.chdir(TMP)
    psi4.core.IOManager.shared_object().set_default_path(TMP)
    names = sys.argv[1:] or [j["name"] for j in JOBS]
    note("psi4 %s, numpy %s" % (psi4.__version__, np.__version__))
    for job in JOBS:
        if job["name"] in names:
            do_job(job, TMP)
    if not sys.argv[1:]:
        with open(os.path.join(HERE, "validation.txt"), "w") as fh:
            fh.write("\n".join(VALIDATION) + "\n")


if __name__ == "__main__":
    main()
