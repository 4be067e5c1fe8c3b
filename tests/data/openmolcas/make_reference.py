#!/usr/bin/env python3
"""Reference data from real OpenMolcas SCF jobs for the Molden import tests.

Run from this folder with Debian's OpenMolcas 22.10 (package openmolcas):

    python3 make_reference.py

Writes, per job NAME: NAME.molden (the SCF module's Molden file), NAME.orb
(orbital values at 40 seeded points from OpenMolcas's grid_it module) and
NAME.esp (the electric potential at the same points from the EPOT option of
the gateway, printed by the SCF module). All OpenMolcas scratch and output
files go to a temporary directory that is removed; the runs are
deterministic.

grid_it prints orbital values with four digits but densities with twelve: each
occupied orbital is therefore taken as sqrt(density / occupation) of a grid_it
run that selects that orbital alone, with the sign of its four-digit value
(for UHF jobs grid_it writes one file per spin).
"""

import math
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))

WATER = [("O", 0.137000, -0.211000, 0.089000),
         ("H", 0.598357, -0.620364, -1.596703),
         ("H", -1.254866, -1.329394, 0.452305)]
OH = [("O", 0.137000, -0.211000, 0.089000),
      ("H", 0.869036, 1.096893, 1.147534)]

# name, atoms, basis, occupied orbitals listed per spin (RHF: alpha only,
# occupation 2; UHF: occupation 1), spin (2S + 1 - 1 in OpenMolcas's terms)
JOBS = [
    dict(name="water_cart", atoms=WATER, basis="6-31G*", alpha=[1, 2, 3, 4, 5], beta=[], spin=0, seed=201),
    dict(name="water_tz", atoms=WATER, basis="cc-pVTZ", alpha=[1, 2, 3, 4, 5], beta=[], spin=0, seed=202),
    dict(name="oh_uhf", atoms=OH, basis="cc-pVTZ", alpha=[1, 2, 3, 4, 5], beta=[1, 2, 3, 4], spin=1, seed=203),
]
NPOINTS = 40


def points(job):
    """0.3-2.5 bohr from a random atom in random directions, 6 decimals."""
    rng = random.Random(job["seed"])
    out = []
    while len(out) < NPOINTS:
        a = job["atoms"][rng.randrange(len(job["atoms"]))]
        v = [rng.gauss(0, 1) for _ in range(3)]
        n = math.sqrt(sum(x * x for x in v))
        r = rng.uniform(0.3, 2.5)
        p = [round(a[k + 1] + r * v[k] / n, 6) for k in range(3)]
        if min(math.dist(p, b[1:]) for b in job["atoms"]) > 0.25:
            out.append(p)
    return out


def run(tmp, text, project):
    path = os.path.join(tmp, "in.input")
    with open(path, "w") as f:
        f.write(text)
    env = dict(os.environ, MOLCAS_MEM="1000", MOLCAS_WORKDIR=os.path.join(tmp, "work"), MOLCAS_PROJECT=project,
               MOLCAS_OUTPUT=tmp, OMP_NUM_THREADS="1")
    out = subprocess.run(["pymolcas", path], cwd=tmp, capture_output=True, text=True, env=env)
    if out.returncode != 0:
        sys.exit("OpenMolcas failed:\n" + out.stdout[-3000:] + out.stderr[-2000:])
    return out.stdout


def point_lines(pts):
    return "\n".join("  %.6f %.6f %.6f" % tuple(p) for p in pts)


def make(job):
    tmp = tempfile.mkdtemp(prefix="kalvex_molcas_")
    try:
        name, pts = job["name"], points(job)
        os.makedirs(os.path.join(tmp, "work"))
        geom = "\n".join("  %s%d %.6f %.6f %.6f" % ((a[0], k + 1) + a[1:]) for k, a in enumerate(job["atoms"]))
        out = run(tmp, f"""&GATEWAY
  Coord
  {len(job['atoms'])}
  Bohr
{geom}
  Basis = {job['basis']}
  Group = NoSym
  EPOT
  {len(pts)}
{point_lines(pts)}
&SEWARD
&SCF
{"  UHF" + chr(10) + "  Spin = %d" % (job["spin"] + 1) + chr(10) if job["spin"] else ""}  Thresholds
  1.0d-11 1.0d-9 1.0d-9 0.2d-4
""", name)
        shutil.copy(os.path.join(tmp, name + ".scf.molden"), os.path.join(HERE, name + ".molden"))
        m = re.search(r"Electric potential:\n((?:\s+\d+\s+\S+\n){%d})" % len(pts), out)
        assert m, "no electric potential in the output"
        esp = [float(line.split()[1]) for line in m.group(1).strip().split("\n")]

        cols = []
        uhf = job["spin"] > 0
        for spin, k in [("a", k) for k in job["alpha"]] + [("b", k) for k in job["beta"]]:
            run(tmp, f"""&GRID_IT
  FILE
  {name}.{'UhfOrb' if uhf else 'ScfOrb'}
  NoLuscus
  Ascii
  Select
  1:{k}-{k}
  Grid
  {len(pts)}
{point_lines(pts)}
""", name)
            # UHF: NAME.a.grid and NAME.b.grid, one spin each
            text = open(os.path.join(tmp, name + ("." + spin if uhf else "") + ".grid")).read()
            blocks = re.split(r"Title=\s*(\d+)\s*\n", text)
            vals = {int(blocks[i]): blocks[i + 1].split()[:len(pts)] for i in range(1, len(blocks), 2)}
            rough = [float(v.replace("-.", "-0.")) for v in vals[k]]
            dens = [float(v) for v in vals[0]]
            col = []
            for r, d in zip(rough, dens):
                v = math.copysign(math.sqrt(max(d, 0.0) / (1.0 if uhf else 2.0)), r)
                assert abs(v - r) <= 5.01e-4 * abs(r) + 1e-15, (k, v, r)  # four digits: 0.xxxxE+yy
                col.append(v)
            cols.append(("%s%d" % (spin, k), col))
        with open(os.path.join(HERE, name + ".orb"), "w") as f:
            f.write("# OpenMolcas 22.10 grid_it: %s %s/%s, occupied orbitals as sqrt(density/occupation) with the sign\n"
                    "# of the four-digit value, at the points (bohr)\n" % (name, "UHF" if uhf else "RHF", job["basis"]))
            f.write("x y z " + " ".join(c for c, _ in cols) + "\n")
            for p, pt in enumerate(pts):
                f.write(" ".join("%.6f" % c for c in pt) + " " + " ".join("%.12e" % v[p] for _, v in cols) + "\n")
        with open(os.path.join(HERE, name + ".esp"), "w") as f:
            f.write("# OpenMolcas 22.10 EPOT: %s, electric potential (hartree/e) at the points (bohr)\n" % name)
            f.write("x y z esp\n")
            for pt, v in zip(pts, esp):
                f.write(" ".join("%.6f" % c for c in pt) + " %.8f\n" % v)
        print("%s: %d orbitals and the potential at %d points" % (name, len(cols), len(pts)))
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    names = sys.argv[1:]
    for job in JOBS:
        if not names or job["name"] in names:
            make(job)


if __name__ == "__main__":
    main()
