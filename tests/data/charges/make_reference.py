#!/usr/bin/env python3
"""Reference data for kalvex-potential and kalvex-charges.

Run from this folder with Debian's psi4 (1.3.2) and NWChem (7.0.2):

    PYTHONPATH=/usr/lib/x86_64-linux-gnu /usr/bin/python3 make_reference.py

psi4 runs the SCF jobs whose Molden files the tests import (NAME.molden) and
evaluates the electrostatic potential at seeded points with its OEProp grid
potential (NAME.esp). NWChem runs the same jobs (same geometry and basis) and
fits charges with its esp module (NAME.nwchem), once with the CHELPG settings
and once on a coarser grid whose points and potential values are kept
(NAME.nwgrid) so that the fit alone can be compared on identical data.
NAME.info holds psi4's SCF energy and dipole (oeprop DIPOLE, debye).
Everything is written to a temporary directory first and removed afterwards;
two runs give byte-identical files.
"""

import atexit
import os
import re
import shutil
import subprocess
import sys
import tempfile

import numpy as np

TMP = tempfile.mkdtemp(prefix="kalvex_charges_")
atexit.register(shutil.rmtree, TMP, True)

import psi4  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
BOHR = 0.52917721067          # angstrom per bohr, psi4 1.3.2's constant

# The CHELPG paper's water: r(OH) 0.956 angstrom, HOH 104.5 degrees.
_half = np.radians(104.5 / 2)
WATER = [("O", 0.0, 0.0, 0.0),
         ("H", 0.956 * np.sin(_half), 0.0, 0.956 * np.cos(_half)),
         ("H", -0.956 * np.sin(_half), 0.0, 0.956 * np.cos(_half))]
METHANOL = [("C", -0.046520, 0.662558, 0.000000),
            ("O", -0.046520, -0.755442, 0.000000),
            ("H", -1.086272, 0.976254, 0.000000),
            ("H", 0.437969, 1.071881, 0.888972),
            ("H", 0.437969, 1.071881, -0.888972),
            ("H", 0.856887, -1.085738, 0.000000)]
CHLOROMETHANE = [("C", 0.0, 0.0, 0.0),
                 ("Cl", 0.0, 0.0, 1.781),
                 ("H", 1.027400, 0.0, -0.363100),
                 ("H", -0.513700, 0.889755, -0.363100),
                 ("H", -0.513700, -0.889755, -0.363100)]
# N-acetylalanine N-methylamide (Open Babel --gen3d from CC(=O)NC(C)C(=O)NC)
DIPEPTIDE = [("C", 1.05253, -0.42034, 0.20940), ("C", 2.54916, -0.53631, 0.10690),
             ("O", 3.10292, -1.19334, -0.76967), ("N", 3.22655, 0.16071, 1.07339),
             ("C", 4.68365, 0.16650, 1.15965), ("C", 5.25478, 1.30979, 0.32693),
             ("C", 5.08988, 0.30334, 2.64288), ("O", 4.25227, 0.39882, 3.54117),
             ("N", 6.44884, 0.30032, 2.87528), ("C", 7.01454, 0.41972, 4.19695),
             ("H", 0.59079, -0.86758, -0.67320), ("H", 0.76158, 0.63312, 0.25591),
             ("H", 0.69779, -0.94354, 1.10132), ("H", 2.72202, 0.56028, 1.85952),
             ("H", 5.06283, -0.79414, 0.79158), ("H", 4.90897, 2.27825, 0.70602),
             ("H", 4.94500, 1.22945, -0.71912), ("H", 6.34924, 1.31956, 0.35044),
             ("H", 7.08862, 0.22253, 2.09550), ("H", 6.24364, 0.45694, 4.97002),
             ("H", 7.61405, 1.33345, 4.22967), ("H", 7.66600, -0.44130, 4.36566)]

# name, atoms (angstrom), basis, points for the potential (0: none), NWChem fits
JOBS = [
    dict(name="water_sto3g", atoms=WATER, basis="sto-3g", npoints=300, seed=171, nwchem=True),
    dict(name="methanol", atoms=METHANOL, basis="6-31G*", npoints=300, seed=172, nwchem=True),
    dict(name="chloromethane", atoms=CHLOROMETHANE, basis="6-31G*", npoints=0, seed=0, nwchem=True),
    dict(name="dipeptide", atoms=DIPEPTIDE, basis="6-31G*", npoints=0, seed=0, nwchem=False),
]

# Breneman-Wiberg radii (angstrom) for NWChem's esp module, which takes nm
CHELPG_RADII = {"H": 1.45, "C": 1.5, "N": 1.7, "O": 1.7, "Cl": 2.0}
ZNUM = {"H": 1, "C": 6, "N": 7, "O": 8, "Cl": 17}


def bohr_atoms(atoms):
    return [(s, x / BOHR, y / BOHR, z / BOHR) for s, x, y, z in atoms]


def run_psi4(job):
    psi4.core.clean()
    psi4.core.clean_options()
    psi4.core.set_output_file(os.path.join(TMP, job["name"] + ".out"), False)
    lines = ["0 1"] + ["%-2s %.12f %.12f %.12f" % a for a in bohr_atoms(job["atoms"])]
    lines += ["units bohr", "symmetry c1", "no_reorient", "no_com"]
    mol = psi4.geometry("\n".join(lines), name=job["name"])
    psi4.set_options({"basis": job["basis"], "puream": False, "reference": "rhf", "scf_type": "pk",
                      "e_convergence": 1e-10, "d_convergence": 1e-10, "guess": "sad"})
    energy, wfn = psi4.energy("scf", molecule=mol, return_wfn=True)
    psi4.molden(wfn, os.path.join(HERE, job["name"] + ".molden"))
    return energy, wfn


def seeded_points(job):
    """Points around the atoms: 0.05 to 8 bohr from a random atom, uniform
    random directions, rounded to 6 decimals (the printed values are the points)."""
    rng = np.random.default_rng(job["seed"])
    atoms = np.array([a[1:] for a in bohr_atoms(job["atoms"])])
    pts = []
    while len(pts) < job["npoints"]:
        centre = atoms[rng.integers(len(atoms))]
        d = rng.normal(size=3)
        p = np.round(centre + d / np.linalg.norm(d) * rng.uniform(0.05, 8.0), 6)
        if np.min(np.linalg.norm(atoms - p, axis=1)) >= 0.05:
            pts.append(p)
    return np.array(pts)


def psi4_grid_esp(wfn, job):
    pts = seeded_points(job)
    np.savetxt("grid.dat", pts, fmt="%.6f")      # the working directory is TMP
    psi4.oeprop(wfn, "GRID_ESP")
    v = np.loadtxt("grid_esp.dat")
    # cross-check with the in-memory evaluator of the same library
    mem = np.array(psi4.core.ESPPropCalc(wfn).compute_esp_over_grid_in_memory(
        psi4.core.Matrix.from_array(np.ascontiguousarray(pts))))
    assert np.max(np.abs(mem - v)) < 1e-9, np.max(np.abs(mem - v))
    with open(os.path.join(HERE, job["name"] + ".esp"), "w") as f:
        f.write("# psi4 1.3.2 oeprop GRID_ESP: %s RHF/%s, electrostatic potential (hartree/e) at seeded points (bohr)\n"
                % (job["name"], job["basis"]))
        f.write("x y z esp\n")
        for p, val in zip(pts, v):
            f.write("%.6f %.6f %.6f %.10f\n" % (p[0], p[1], p[2], val))
    return len(pts)


def nwchem_input(job, esp_block):
    geom = "\n".join("  %s %.12f %.12f %.12f" % a for a in bohr_atoms(job["atoms"]))
    return f"""start {job['name']}
permanent_dir {TMP}
scratch_dir {TMP}
geometry units bohr noautoz nocenter noautosym
  symmetry c1
{geom}
end
basis cartesian
  * library {job['basis']}
end
scf
  rhf; singlet; thresh 1e-10; tol2e 1e-14; maxiter 200
end
task scf energy
esp
  recalculate
{esp_block}
end
task esp
"""


def run_nwchem(job, esp_block):
    for f in os.listdir(TMP):
        if f.startswith(job["name"] + "."):
            os.remove(os.path.join(TMP, f))
    path = os.path.join(TMP, job["name"] + ".nw")
    with open(path, "w") as f:
        f.write(nwchem_input(job, esp_block))
    out = subprocess.run(["nwchem", path], cwd=TMP, capture_output=True, text=True)
    if out.returncode != 0 or "Total times" not in out.stdout:
        sys.exit("NWChem failed on %s:\n%s" % (job["name"], out.stdout[-3000:] + out.stderr[-3000:]))
    return out.stdout


def nwchem_charges(text, natoms):
    """The esp module's table: per atom its ESP, RESP and RESP2 columns."""
    lines = text.split("\n")
    start = max(i for i, l in enumerate(lines) if l.strip().startswith("Atom") and "Coordinates" in l)
    rows = []
    for l in lines[start + 1:]:
        m = re.match(r"\s*\d+\s+[A-Za-z]+\s+(-?\d+\.\d+\s+){3}(.*)$", l)
        if m:
            rows.append([float(v) for v in m.group(2).split()])
            if len(rows) == natoms:
                break
    assert len(rows) == natoms, rows
    points = int(re.search(r"Number of grid points is\s+(\d+)", text).group(1))
    return rows, points


def esp_settings(radii, spacing, extra=""):
    # probe 0 makes NWChem 7.0.2 abort; 1e-5 nm is 1e-4 angstrom
    lines = ["  range 0.28", "  probe 0.00001", "  spacing %.3f" % spacing]
    # NWChem 7.0.2 aborts when the radius of H comes first
    for sym in sorted(radii, key=lambda s: -ZNUM[s]):
        lines.append("  radius %d %.4f" % (ZNUM[sym], radii[sym] / 10))
    return "\n".join(lines) + extra


def nwchem_job(job):
    syms = sorted({a[0] for a in job["atoms"]}, key=lambda s: -ZNUM[s])
    radii = {s: CHELPG_RADII[s] for s in syms}
    restrain = "\n  restrain hfree hyperbolic 0.0005 0.1 maxiter 100 tolerance 0.000001"
    out = []
    # 1. CHELPG settings: 0.3 angstrom spacing, 2.8 angstrom range, the radii above
    text = run_nwchem(job, esp_settings(radii, 0.03))
    rows, npts = nwchem_charges(text, len(job["atoms"]))
    out.append(("chelpg", npts, [r[0] for r in rows]))
    # 2. a coarser grid (0.5 angstrom), unrestrained and RESP stage one and two;
    #    its points and potential are kept
    text = run_nwchem(job, esp_settings(radii, 0.05, restrain))
    rows, npts = nwchem_charges(text, len(job["atoms"]))
    out.append(("grid_esp", npts, [r[0] for r in rows]))
    out.append(("grid_resp1", npts, [r[1] for r in rows]))
    out.append(("grid_resp2", npts, [r[2] for r in rows]))
    with open(os.path.join(TMP, job["name"] + ".grid")) as f:
        grid = f.read().split("\n")
    assert int(grid[0].split()[0]) == npts
    with open(os.path.join(HERE, job["name"] + ".nwgrid"), "w") as f:
        f.write("# NWChem 7.0.2 esp module: %s RHF/%s, its fitting points (bohr) and potential (hartree/e), "
                "spacing 0.5 angstrom, range 2.8 angstrom, CHELPG radii\n" % (job["name"], job["basis"]))
        f.write("x y z esp\n")
        for l in grid[1:]:
            if l.strip():
                f.write(" ".join(l.split()) + "\n")
    with open(os.path.join(HERE, job["name"] + ".nwchem"), "w") as f:
        f.write("# NWChem 7.0.2 esp module: %s RHF/%s, charges per atom (job order)\n" % (job["name"], job["basis"]))
        f.write("# chelpg: range 0.28 nm, spacing 0.03 nm, probe 1e-5 nm, radii %s angstrom\n"
                % " ".join("%s %.2f" % (s, radii[s]) for s in syms))
        f.write("# grid_*: the same with spacing 0.05 nm (points in %s.nwgrid); resp1: restrain hfree "
                "hyperbolic 0.0005 0.1; resp2: the module's second stage\n" % job["name"])
        f.write("fit points " + " ".join(a[0] for a in job["atoms"]) + "\n")
        for label, n, q in out:
            f.write("%s %d %s\n" % (label, n, " ".join("%.6f" % v for v in q)))
    return out


def main():
    os.chdir(TMP)   # psi4 writes its timer.dat and scratch into the working directory
    psi4.set_num_threads(1)
    psi4.set_memory("1 GB")
    names = sys.argv[1:]
    for job in JOBS:
        if names and job["name"] not in names:
            continue
        energy, wfn = run_psi4(job)
        msg = "%s: E(SCF) %.10f" % (job["name"], energy)
        psi4.oeprop(wfn, "DIPOLE")
        dip = [psi4.variable("CURRENT DIPOLE " + c) for c in "XYZ"]   # debye in psi4 1.3.2
        with open(os.path.join(HERE, job["name"] + ".info"), "w") as f:
            f.write("# psi4 1.3.2: %s RHF/%s (cartesian d), geometry in make_reference.py\n" % (job["name"], job["basis"]))
            f.write("scf_energy %.10f\n" % energy)
            f.write("dipole_debye %.8f %.8f %.8f\n" % tuple(dip))
        if job["npoints"]:
            msg += ", %d potential points" % psi4_grid_esp(wfn, job)
        if job["nwchem"]:
            for label, n, q in nwchem_job(job):
                msg += "\n  NWChem %s (%d points): %s" % (label, n, " ".join("%.4f" % v for v in q))
        print(msg)


if __name__ == "__main__":
    main()
