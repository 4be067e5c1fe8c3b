"""Benchmark jobs: stacked uracil clusters, RHF/6-31G* (cartesian d), made with psi4.

    PYTHONPATH=/usr/lib/x86_64-linux-gnu /usr/bin/python3 make_jobs.py [KALVEX_IMPORT]

writes uracil2.molden (24 atoms, 256 basis functions) and uracil4.molden (48 atoms,
512 basis functions) and, when the path of kalvex-import is given, converts them into the
Kalvex jobs uracil2/uracil2.* and uracil4/uracil4.* that bench/ reads (the Molden files,
2 and 7 MB, are not kept in the repository). The uracil geometry
was made once by Open Babel from the SMILES O=C1NC=CC(=O)N1 (--gen3d) and is fixed here;
the copies are stacked 3.4 angstrom apart, every other one turned by 180 degrees about the
stacking axis and shifted by 0.8 angstrom, so the clusters have no symmetry.
"""
import math
import os
import shutil
import subprocess
import sys
import tempfile

URACIL = """
O  -2.23255  0.97099  0.01338
C  -1.18641  0.33101  0.00938
N  -1.17428 -1.03877  0.01387
C  -0.03001 -1.78549 -0.00140
C   1.16955 -1.20040 -0.01661
C   1.23949  0.27485 -0.00859
O   2.31911  0.85397 -0.00960
N   0.04093  0.93142  0.00011
H  -2.08399 -1.48590  0.02518
H  -0.14955 -2.86415 -0.00223
H   2.10215 -1.74799 -0.03199
H   0.06122  1.93870  0.00350
"""


def cluster(n):
    atoms = [line.split() for line in URACIL.strip().splitlines()]
    out = []
    for k in range(n):
        turn = math.pi if k % 2 else 0.0
        c, s = math.cos(turn), math.sin(turn)
        for sym, x, y, z in atoms:
            x, y, z = float(x), float(y), float(z)
            xr, yr = c * x - s * y + 0.8 * (k % 2), s * x + c * y
            out.append("%-2s %12.6f %12.6f %12.6f" % (sym, xr, yr, z + 3.4 * k))
    return "\n".join(out)


def run(name, n):
    import psi4
    scratch = tempfile.mkdtemp(prefix="kvx_bench_")
    cwd = os.getcwd()
    try:
        os.chdir(scratch)
        psi4.core.set_output_file(os.path.join(scratch, name + ".out"), False)
        psi4.set_memory("4 GB")
        psi4.set_num_threads(2)
        psi4.core.IOManager.shared_object().set_default_path(scratch)
        mol = psi4.geometry(cluster(n) + "\nsymmetry c1\nno_reorient\nno_com\n")
        psi4.set_options({"basis": "6-31G*", "scf_type": "df", "e_convergence": 1e-10,
                          "d_convergence": 1e-8, "guess": "sad"})
        energy, wfn = psi4.energy("scf", return_wfn=True, molecule=mol)
        psi4.molden(wfn, os.path.join(cwd, name + ".molden"), dovirtual=True)
        print(name, "atoms", mol.natom(), "basis functions", wfn.nso(), "energy %.10f" % energy)
        psi4.core.clean()
    finally:
        os.chdir(cwd)
        shutil.rmtree(scratch, ignore_errors=True)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    os.chdir(here)
    importer = sys.argv[1] if len(sys.argv) > 1 else None
    for name, n in (("uracil2", 2), ("uracil4", 4)):
        run(name, n)
        if importer:
            os.makedirs(name, exist_ok=True)
            subprocess.run([importer, name + ".molden", os.path.join(name, name)], check=True)


if __name__ == "__main__":
    main()
