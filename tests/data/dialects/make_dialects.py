#!/usr/bin/env python3
"""Files in the dialects of writers that cannot be installed here, made from
the psi4 reference jobs in ../psi4, and one psi4 job with effective core
potentials.

    cd tests/data/dialects
    python3 make_dialects.py            # the rewritten files (no psi4 needed)
    PYTHONPATH=/usr/lib/x86_64-linux-gnu /usr/bin/python3 -O make_dialects.py --ecp

Each rewritten file holds the same wavefunction as the psi4 file it comes
from, so the import tests compare it with that job's .ref values. Every
rewrite is deterministic; the --ecp job is made by ../psi4/make_reference.py's
own routine and writes hi_ecp.molden, .fchk, .ref, .info here. It runs with
-O: that routine's cross-checks of psi4's own files are made for light atoms
(absolute tolerances) and are printed, not asserted, here (see README.md).
"""

import math
import os
import re
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
PSI4 = os.path.join(HERE, "..", "psi4")
LETTERS = "spdfghi"


def dfact(n):
    return 1 if n <= 1 else n * dfact(n - 2)


def prim_norm(a, l):
    """Normalisation of x^l exp(-a r^2)."""
    return (2 * a / math.pi) ** 0.75 * (4 * a) ** (l / 2) / math.sqrt(dfact(2 * l - 1))


def parse(text):
    """Sections of a psi4 Molden file: atoms lines, flags, shells per atom
    [(label, [(exponent, coefficient)])], orbitals [(header lines, {index: value})]."""
    lines = text.split("\n")
    out = {"atoms": [], "flags": [], "gto": [], "mo": []}
    sec = None
    for line in lines:
        t = line.strip()
        if t.startswith("["):
            sec = t[1:t.index("]")].lower()
            if sec in ("5d", "5d7f", "5d10f", "7f", "9g"):
                out["flags"].append(t)
            continue
        if not t:
            continue
        f = t.split()
        if sec == "atoms":
            out["atoms"].append(f)
        elif sec == "gto":
            if len(f) == 2 and f[0].isdigit():
                out["gto"].append((int(f[0]), []))
            elif f[0].lower() in LETTERS or f[0].lower() == "sp":
                out["gto"][-1][1].append((f[0].lower(), []))
            else:
                out["gto"][-1][1][-1][1].append((float(f[0]), float(f[1])))
        elif sec == "mo":
            if "=" in t:
                if not out["mo"] or out["mo"][-1][1]:
                    out["mo"].append(([], {}))
                out["mo"][-1][0].append(t)
            else:
                out["mo"][-1][1][int(f[0])] = float(f[1])
    return out


def pure_l(flags):
    fl = {f.lower() for f in flags}
    return {2: bool(fl & {"[5d]", "[5d7f]", "[5d10f]"}), 3: bool(fl & {"[5d]", "[5d7f]", "[7f]"}), 4: "[9g]" in fl}


def functions(m):
    """(shell label, l, pure, component) per basis function, in file order."""
    pure = pure_l(m["flags"])
    out = []
    for _, shells in m["gto"]:
        for label, _ in shells:
            l = LETTERS.index(label)
            n = 2 * l + 1 if pure.get(l) else (l + 1) * (l + 2) // 2
            out += [(label, l, pure.get(l, False), k) for k in range(n)]
    return out


def header_value(headers, key):
    for h in headers:
        if h.lower().startswith(key.lower()):
            return h.split("=", 1)[1].strip()
    return None


def orca(src, dst):
    """ORCA: contraction coefficients of unnormalised primitives, spherical f
    and g functions with |m| = 3 (and 4 for g) negated, a [Title] naming
    orca_2mkl, "[5D7F]" and "[9G]" after the basis."""
    m = parse(open(os.path.join(PSI4, src)).read())
    funcs = functions(m)
    out = ["[Molden Format]", "[Title]", " Molden file created by orca_2mkl for BaseName=%s" % src.split(".")[0],
           "", "[Atoms] AU"]
    out += ["%-4s%4s%4s %20s %20s %20s" % tuple(a) for a in m["atoms"]]
    out.append("[GTO]")
    for atom, shells in m["gto"]:
        out.append("  %d 0" % atom)
        for label, prims in shells:
            l = LETTERS.index(label)
            out.append("%s   %d   1.00" % (label, len(prims)))
            out += ["%20.10f %20.10f" % (e, c * prim_norm(e, l)) for e, c in prims]
        out.append("")
    out += ["[5D7F]", "[9G]", "[MO]"]
    for headers, coefs in m["mo"]:
        out += [" Sym= %s" % header_value(headers, "Sym"), " Ene= %s" % header_value(headers, "Ene"),
                " Spin= %s" % header_value(headers, "Spin"), " Occup= %s" % header_value(headers, "Occup")]
        for i in sorted(coefs):
            _, l, pure, k = funcs[i - 1]
            sign = -1.0 if pure and l in (3, 4) and 5 <= k < (7 if l == 3 else 9) else 1.0
            out.append("%3d %20.12f" % (i, sign * coefs[i]))
    open(os.path.join(HERE, dst), "w").write("\n".join(out) + "\n")


def fortran(x):
    """x as Fortran writes it: 0.123456789012345D+02."""
    if x == 0:
        return "0.000000000000000D+00"
    e = math.floor(math.log10(abs(x))) + 1
    mant = x / 10 ** e
    if abs(mant) >= 1:
        mant, e = mant / 10, e + 1
    return ("%.15fD%+03d" % (mant, e)).replace("0.", "0.", 1)


def molcas(src, dst):
    """OpenMolcas-like: [N_Atoms], labels with numbers, [5D] and [7F] as two
    flags before the basis, a [Charge] block, "[GTO] (AU)" with bare atom
    numbers and shell lines without the third field, Fortran D exponents,
    lower-case spins, energies in D format."""
    m = parse(open(os.path.join(PSI4, src)).read())
    out = ["[Molden Format]", "[N_Atoms]", "  %d" % len(m["atoms"]), "[Atoms] (AU)"]
    out += ["%s%d %6s %6s %18s %18s %18s" % (a[0], k + 1, a[1], a[2], a[3], a[4], a[5]) for k, a in enumerate(m["atoms"])]
    out += ["[5D]", "[7F]", "[Charge] (Mulliken)"] + [" 0.0" for _ in m["atoms"]]
    out.append("[GTO] (AU)")
    for atom, shells in m["gto"]:
        out.append("   %d" % atom)
        for label, prims in shells:
            out.append("   %s   %d" % (label, len(prims)))
            out += ["  %s  %s" % (fortran(e), fortran(c)) for e, c in prims]
        out.append(" ")
    out.append("[MO]")
    for headers, coefs in m["mo"]:
        out += ["Sym=     %da" % (len(out) % 97 + 1), "Ene= %s" % fortran(float(header_value(headers, "Ene"))),
                "Spin= %s" % header_value(headers, "Spin").lower(),
                "Occup= %10.5f" % float(header_value(headers, "Occup"))]
        out += ["%4d %22.14f" % (i, coefs[i]) for i in sorted(coefs)]
    open(os.path.join(HERE, dst), "w").write("\n".join(out) + "\n")


def scrambled(src, dst):
    """Sections in reverse order ([MO] first, [Atoms] last, in angstrom), a
    [Title], blank lines and the obsolete field 1.00 in the basis, upper-case
    spins, coefficients only where non-zero."""
    m = parse(open(os.path.join(PSI4, src)).read())
    bohr = 0.529177210903
    out = ["[Molden Format]", "[Title]", " CH2 triplet, rewritten: [MO] before [GTO] before [Atoms]", "[MO]"]
    for headers, coefs in m["mo"]:
        out += ["Sym=  A1", "Ene= %s" % header_value(headers, "Ene"), "Spin= %s" % header_value(headers, "Spin").upper(),
                "Occup= %s" % header_value(headers, "Occup")]
        out += ["%d %s" % (i, repr(coefs[i])) for i in sorted(coefs) if coefs[i] != 0.0]
    out += ["[GTO]", ""]
    for atom, shells in m["gto"]:
        out += ["%d 0" % atom, ""]
        for label, prims in shells:
            out.append(" %s %d 1.00" % (label.upper(), len(prims)))
            out += ["  %s  %s" % (repr(e).replace("e", "D"), repr(c)) for e, c in prims]
        out.append("")
    out.append("[Atoms] Angs")
    out += ["%s %s %s %.15f %.15f %.15f" % (a[0], a[1], a[2], float(a[3]) * bohr, float(a[4]) * bohr,
                                             float(a[5]) * bohr) for a in m["atoms"]]
    open(os.path.join(HERE, dst), "w").write("\n".join(out) + "\n")


def with_nval(src, dst, element, charge):
    """The Molden file with an [Nval] block giving an element's valence charge."""
    text = open(os.path.join(HERE, src)).read()
    open(os.path.join(HERE, dst), "w").write(text.replace("[GTO]", "[Nval]\n%s %d\n[GTO]" % (element, charge), 1))


def gaussian_fchk(src, dst, z):
    """psi4 1.3.2 writes the valence charge of an atom with an effective core
    potential under "Atomic numbers" as well; Gaussian writes the element's
    number there (and the valence charge under "Nuclear charges")."""
    lines = open(os.path.join(HERE, src)).read().split("\n")
    at = next(i for i, l in enumerate(lines) if l.startswith("Atomic numbers"))
    lines[at + 1] = "".join("%12d" % v for v in z)
    lines[1] = "SP        RHF                                                         Gen"
    open(os.path.join(HERE, dst), "w").write("\n".join(lines))


def ecp_job():
    sys.path.insert(0, PSI4)
    import make_reference as mr
    mr.HERE = HERE
    import psi4
    psi4.set_num_threads(1)
    psi4.set_memory("2 GB")
    os.chdir(mr.TMP)
    psi4.core.IOManager.shared_object().set_default_path(mr.TMP)
    job = dict(name="hi_ecp", atoms=[("I", 0.137000, -0.211000, 0.089000), ("H", 1.312356, 2.391478, 1.172804)],
               charge=0, mult=1, ref="rhf", basis="def2-SVP", puream=True, hi_l=None, seed=301)
    mr.do_job(job, mr.TMP)


def main():
    if "--ecp" in sys.argv:
        ecp_job()
        with_nval("hi_ecp.molden", "hi_ecp_nval.molden", "I", 25)
        gaussian_fchk("hi_ecp.fchk", "hi_ecp_gaussian.fchk", [53, 1])
        return
    orca("water_tz.molden", "water_tz_orca.molden")
    orca("hf_qz.molden", "hf_qz_orca.molden")
    molcas("oh_uhf.molden", "oh_uhf_molcas.molden")
    scrambled("ch2_cart.molden", "ch2_cart_scrambled.molden")
    if os.path.exists(os.path.join(HERE, "hi_ecp.molden")):
        with_nval("hi_ecp.molden", "hi_ecp_nval.molden", "I", 25)
        gaussian_fchk("hi_ecp.fchk", "hi_ecp_gaussian.fchk", [53, 1])


if __name__ == "__main__":
    main()
