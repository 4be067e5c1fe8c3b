#!/usr/bin/env python3
"""Reference data from real NWChem SCF jobs for the Molden and AIM import tests.

Run from this folder with Debian's NWChem 7.0.2 (package nwchem):

    python3 make_reference.py

Writes, per job NAME: NAME.molden and NAME.wfn (NWChem's property module,
moldenfile with molden_norm none, and aimfile), NAME.orb (orbital values from
NWChem's dplot module at the points of a small grid) and NAME.esp (NWChem's
esp module: the electrostatic potential at its fitting points, a subset).
For the cartesian jobs it also writes NAME.wfx: the same wavefunction as
NAME.wfn rewritten here in the wfx layout (NWChem 7.0.2 writes no wfx), with
the values copied as NWChem printed them.
All NWChem scratch and output files go to a temporary directory that is
removed. The jobs run on one process and are deterministic.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))

# the psi4 reference molecules (bohr)
WATER = [("O", 0.137000, -0.211000, 0.089000),
         ("H", 0.598357, -0.620364, -1.596703),
         ("H", -1.254866, -1.329394, 0.452305)]
OH = [("O", 0.137000, -0.211000, 0.089000),
      ("H", 0.869036, 1.096893, 1.147534)]
CH2 = [("C", 0.137000, -0.211000, 0.089000),
       ("H", 1.004900, -0.302982, -1.738269),
       ("H", -1.409478, -1.224200, 0.953819)]
HI = [("I", 0.137000, -0.211000, 0.089000),      # the psi4 job in ../dialects
      ("H", 1.312356, 2.391478, 1.172804)]

# name, atoms, multiplicity, scf kind, basis, cartesian, orbitals listed per spin
JOBS = [
    dict(name="water_cart", atoms=WATER, mult=1, scf="rhf", basis="6-31G*", cart=True,
         alpha=[1, 4, 5, 6, 7], beta=[]),
    dict(name="water_tz", atoms=WATER, mult=1, scf="rhf", basis="cc-pVTZ", cart=False,
         alpha=[1, 4, 5, 6, 7, 40], beta=[]),
    dict(name="oh_uhf", atoms=OH, mult=2, scf="uhf", basis="cc-pVTZ", cart=False,
         alpha=[1, 4, 5, 6, 7, 30], beta=[1, 3, 4, 5, 6, 30]),
    dict(name="ch2_cart", atoms=CH2, mult=3, scf="uhf", basis="cc-pVTZ", cart=True,
         alpha=[1, 4, 5, 6, 7, 40], beta=[1, 2, 3, 4, 5, 40]),
    dict(name="oh_rohf", atoms=OH, mult=2, scf="rohf", basis="cc-pVDZ", cart=False,
         alpha=[1, 4, 5, 6, 7], beta=[]),
    dict(name="oh_rohf_cart", atoms=OH, mult=2, scf="rohf", basis="cc-pVDZ", cart=True,
         alpha=[1, 4, 5, 6, 7], beta=[]),
    # iodine's 28-electron core potential
    dict(name="hi_ecp", atoms=HI, mult=1, scf="rhf", basis="def2-svp", cart=True, ecp="I library def2-ecp",
         alpha=[1, 12, 13, 14, 15], beta=[]),
]

# dplot grid (bohr): min, max, intervals per axis -> 4 x 4 x 4 points, none
# closer than 0.3 bohr to a nucleus
GRID = [(-1.63, 1.37, 3), (-1.71, 1.29, 3), (-1.41, 1.59, 3)]
ESP_EVERY = 7  # keep every 7th of the esp module's points


def nwchem_input(job, tmp, body):
    mult = {1: "singlet", 2: "doublet", 3: "triplet"}[job["mult"]]
    geom = "\n".join("  %s %.6f %.6f %.6f" % a for a in job["atoms"])
    return f"""start {job['name']}
permanent_dir {tmp}
scratch_dir {tmp}
geometry units bohr noautoz nocenter noautosym
  symmetry c1
{geom}
end
basis {'cartesian' if job['cart'] else 'spherical'}
  * library {job['basis']}
end
{('ecp' + chr(10) + '  ' + job['ecp'] + chr(10) + 'end') if 'ecp' in job else ''}
scf
  {job['scf']}; {mult}; thresh 1e-10; tol2e 1e-14; maxiter 200
end
{body}
"""


def run(tmp, name, text):
    path = os.path.join(tmp, name + ".nw")
    with open(path, "w") as f:
        f.write(text)
    out = subprocess.run(["nwchem", path], cwd=tmp, capture_output=True, text=True)
    if out.returncode != 0 or "Total times" not in out.stdout:
        sys.exit("NWChem failed on %s:\n%s" % (name, out.stdout[-3000:] + out.stderr[-3000:]))
    return out.stdout


def grid_points():
    axes = [[lo + i * (hi - lo) / n for i in range(n + 1)] for lo, hi, n in GRID]
    # dplot's Insight file runs x fastest, then y, then z
    return [(x, y, z) for z in axes[2] for y in axes[1] for x in axes[0]]


def insight_values(path):
    with open(path) as f:
        lines = f.read().split("\n")
    # title, format, cell, counts, grid limits, then one value per line
    return [float(v) for v in lines[5:] if v.strip()]


def wfn_to_wfx(src, dst, job):
    """The wfn file in the wfx layout: nuclei, primitives, orbitals with
    their spins (alpha then beta, as NWChem numbers them afresh)."""
    lines = open(src).read().split("\n")
    nmo, nprim, nat = (int(lines[1].split()[k]) for k in (1, 4, 6))
    atoms = []
    for line in lines[2:2 + nat]:
        charge = float(line.split("CHARGE =")[1])
        xyz = line[line.index(")") + 1:line.index("CHARGE")].split()
        atoms.append((line.split()[0], charge, xyz))
    centres, types, exps, mos = [], [], [], []
    for line in lines[2 + nat:]:
        if line.startswith("CENTRE ASSIGNMENTS"):
            centres += line[20:].split()
        elif line.startswith("TYPE ASSIGNMENTS"):
            types += line[20:].split()
        elif line.startswith("EXPONENTS"):
            exps += line[10:].split()
        elif line.startswith("MO"):
            f = line.split()
            mos.append([int(f[1]), line.split("OCC NO =")[1].split()[0], line.split("ENERGY =")[1].split()[0], []])
        elif line.startswith("END DATA"):
            break
        elif mos:
            mos[-1][3] += line.split()
    assert len(mos) == nmo and all(len(m[3]) == nprim for m in mos) and len(exps) == nprim
    unrestricted = job["scf"] == "uhf"
    spins, beta = [], False
    for k, m in enumerate(mos):
        beta = beta or (k > 0 and m[0] <= mos[k - 1][0])
        spins.append(("Beta" if beta else "Alpha") if unrestricted else
                     ("Alpha and Beta" if float(m[1]) > 1.5 else "Alpha"))
    z = {"H": 1, "C": 6, "O": 8}
    nelec = sum(float(m[1]) for m in mos)
    nalpha = sum(1 for k, m in enumerate(mos) if spins[k] != "Beta")

    def tag(name, values, per_line=5):
        out = ["<%s>" % name]
        for i in range(0, len(values), per_line):
            out.append(" " + " ".join(values[i:i + per_line]))
        out.append("</%s>" % name)
        return out

    w = tag("Title", ["NWChem 7.0.2 %s, rewritten from its wfn file" % job["name"]])
    w += tag("Keywords", ["GTO"])
    w += tag("Number of Nuclei", [str(nat)])
    w += tag("Number of Occupied Molecular Orbitals", [str(nmo)])
    w += tag("Number of Perturbations", ["0"])
    w += tag("Nuclear Names", ["%s%d" % (a[0], k + 1) for k, a in enumerate(atoms)], 1)
    w += tag("Atomic Numbers", [str(z[a[0]]) for a in atoms])
    w += tag("Nuclear Charges", ["%.1f" % a[1] for a in atoms])
    w += tag("Nuclear Cartesian Coordinates", [c for a in atoms for c in a[2]], 3)
    w += tag("Net Charge", ["%d" % round(sum(a[1] for a in atoms) - nelec)])
    w += tag("Number of Electrons", ["%d" % round(nelec)])
    w += tag("Number of Alpha Electrons", ["%d" % nalpha])
    w += tag("Number of Beta Electrons", ["%d" % round(nelec - nalpha)])
    w += tag("Electronic Spin Multiplicity", [str(job["mult"])])
    w += tag("Number of Primitives", [str(nprim)])
    w += tag("Primitive Centers", centres)
    w += tag("Primitive Types", types)
    w += tag("Primitive Exponents", exps)
    w += tag("Molecular Orbital Occupation Numbers", [m[1] for m in mos], 1)
    w += tag("Molecular Orbital Energies", [m[2] for m in mos], 1)
    w += tag("Molecular Orbital Spin Types", spins, 1)
    w.append("<Molecular Orbital Primitive Coefficients>")
    for k, m in enumerate(mos):
        w += tag("MO Number", [str(k + 1)])
        w += [" " + " ".join(m[3][i:i + 5]) for i in range(0, nprim, 5)]
    w.append("</Molecular Orbital Primitive Coefficients>")
    with open(dst, "w") as f:
        f.write("\n".join(w) + "\n")


def make(job):
    tmp = tempfile.mkdtemp(prefix="kalvex_nwchem_")
    try:
        name = job["name"]
        dplots = []
        for spin, orbs in (("alpha", job["alpha"]), ("beta", job["beta"])):
            for k in orbs:
                lim = "\n".join("  %.2f %.2f %d" % g for g in GRID)
                spin_line = "  spin beta\n" if spin == "beta" else ""
                dplots.append((spin[0] + str(k), f"""dplot
  vectors {name}.movecs
  limitxyz units au
{lim}
{spin_line}  orbitals view; 1; {k}
  output {spin[0]}{k}.ins
end
task dplot
"""))
        body = """task scf energy
property
  moldenfile
  molden_norm none
  aimfile
end
task scf property
esp
  recalculate
  range 0.2
  probe 0.07
  spacing 0.05
end
task esp
""" + "".join(d for _, d in dplots)
        run(tmp, name, nwchem_input(job, tmp, body))
        shutil.copy(os.path.join(tmp, name + ".molden"), os.path.join(HERE, name + ".molden"))
        shutil.copy(os.path.join(tmp, name + ".wfn"), os.path.join(HERE, name + ".wfn"))
        if job["cart"] and "ecp" not in job:  # its wfn gives iodine the full charge: not copied on
            wfn_to_wfx(os.path.join(HERE, name + ".wfn"), os.path.join(HERE, name + ".wfx"), job)

        pts = grid_points()
        cols = []
        nrow = GRID[0][2] + 1
        for label, _ in dplots:
            vals = insight_values(os.path.join(tmp, label + ".ins"))
            assert len(vals) == len(pts), (name, label, len(vals))
            # dplot 7.0.2 leaves the last x row of the Insight file at zero
            # (its cube file of the same grid has those values): dropped
            assert all(v == 0.0 for v in vals[-nrow:]), (name, label)
            cols.append((label, vals[:-nrow]))
        pts = pts[:-nrow]
        with open(os.path.join(HERE, name + ".orb"), "w") as f:
            f.write("# NWChem 7.0.2 dplot: %s %s/%s (%s), orbital values at the points (bohr)\n"
                    % (name, job["scf"].upper(), job["basis"], "cartesian" if job["cart"] else "spherical"))
            f.write("x y z " + " ".join(label for label, _ in cols) + "\n")
            for p, pt in enumerate(pts):
                f.write(" ".join("%.6f" % c for c in pt) + " " +
                        " ".join("%.10f" % vals[p] for _, vals in cols) + "\n")

        with open(os.path.join(tmp, name + ".grid")) as f:
            rows = [line.split() for line in f.read().split("\n")[1:] if line.strip()]
        with open(os.path.join(HERE, name + ".esp"), "w") as f:
            f.write("# NWChem 7.0.2 esp module: %s, electrostatic potential (hartree/e) at every %dth of its points (bohr)\n"
                    % (name, ESP_EVERY))
            f.write("x y z esp\n")
            for r in rows[::ESP_EVERY]:
                f.write(" ".join(r) + "\n")
        print("%s: %d orbital columns at %d points, %d potential points" % (name, len(cols), len(pts),
                                                                           len(rows[::ESP_EVERY])))
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    names = sys.argv[1:]
    for job in JOBS:
        if not names or job["name"] in names:
            make(job)


if __name__ == "__main__":
    main()
