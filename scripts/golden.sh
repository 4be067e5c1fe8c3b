#!/usr/bin/env bash
# Golden outputs: runs kalvex, kalvex-import, kalvex-cube and kalvex-slice on
# the bundled jobs and the psi4 jobs of tests/data through every request kind,
# and keeps what they print and write.
#
#   golden.sh run   BIN_DIR OUT_DIR   run every case into OUT_DIR (one folder per case)
#   golden.sh make  BIN_DIR           rewrite tests/data/golden from BIN_DIR's tools
#   golden.sh check BIN_DIR           run into a temporary folder and compare with
#                                     tests/data/golden byte for byte (status 1 on a difference)
#
# Each case folder holds stdout.txt and stderr.txt of its commands (the process
# id line reads "Process ID is PID") and every file they wrote. Files larger
# than 64 KiB are kept as NAME.sha256 (their checksum), so the default 30^3
# grids are compared byte for byte without storing them.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
data="$root/tests/data"
golden="$data/golden"

# One case: a folder, the job files copied into it, then the commands run in it.
case_dir() {
    local dir="$OUT/$1"
    rm -rf "$dir"
    mkdir -p "$dir"
    echo "$dir"
}

# kalvex JOB WORDS... with standard input from the case's stdin text (may be empty).
kvx() {
    local input="$1"
    shift
    printf '%s' "$input" | KVX_SCRDIR=. "$BIN/kalvex" "$@" >>stdout.txt 2>>stderr.txt || echo "status $?" >>stdout.txt
}

tool() {
    local name="$1"
    shift
    "$BIN/$name" "$@" >>stdout.txt 2>>stderr.txt || echo "status $?" >>stdout.txt
}

# Removes the job's input files (they are inputs, not outputs), masks the
# process id and replaces large files by their checksums.
finish() {
    local dir="$1"
    shift
    (
        cd "$dir"
        for f in "$@"; do rm -f -- "$f"; done
        sed -i -E 's/^Process ID is [0-9]+$/Process ID is PID/' stdout.txt
        for f in *; do
            [ -f "$f" ] || continue
            if [ "$(stat -c %s -- "$f")" -gt 65536 ]; then
                sha256sum -- "$f" | cut -d' ' -f1 >"$f.sha256"
                rm -f -- "$f"
            fi
        done
    )
}

copy_job() {
    local src="$1" dir="$2"
    shift 2
    for ext in "$@"; do cp "$src.$ext" "$dir/"; done
}

run_cases() {
    local d

    # Water RHF/6-31G* (cartesian d): every request kind on a small grid, on
    # the command line, with the availability and orbital-list messages.
    d=$(case_dir water_all)
    copy_job "$data/water/water" "$d" control coord basis mos
    (cd "$d" && kvx "" water -xp 9 -yp 8 -zp 7 -den -dena -denb -spin -moa 5 -moa 1 -moa 0 -moa 99 -mob 1 \
        -loa 1 -lob 1 -nos 1 -partd 1 1-3,5 1-2 -partd 1 9-12 2 -partd 0 1 1 -partd 7 1 1 -parts 1 2-4 1 \
        -parts 0 1 1 -ep -den -chelp)
    (cd "$d" && tool kalvex-cube water "$(ls -- *-den.grid | head -n 1)" den.cube &&
        tool kalvex-cube water "$(ls -- *-moa-5.grid | head -n 1)" moa5.cube &&
        tool kalvex-slice water "$(ls -- *-ep.grid | head -n 1)" --plane y=-0.5 ep.svg &&
        tool kalvex-slice water "$(ls -- *-moa-5.grid | head -n 1)" --plane z=0.1 moa5.svg &&
        tool kalvex-slice water "$(ls -- *-den.grid | head -n 1)" --plane x=0 den.svg)
    finish "$d" water.control water.coord water.basis water.mos

    # Partial densities, each under its own base name so that every one is kept.
    d=$(case_dir water_partial)
    copy_job "$data/water/water" "$d" control coord basis mos
    (cd "$d" && kvx "" water -xp 7 -yp 8 -zp 9 -base A -partd 1 1-3,5 1-2 &&
        kvx "" water -xp 7 -yp 8 -zp 9 -base B -partd 1 9-12 2 &&
        kvx "" water -xp 7 -yp 8 -zp 9 -base C -partd 1 -3,4- x &&
        kvx "" water -xp 7 -yp 8 -zp 9 -base D -parts 1 2-4 1 &&
        kvx "" water -xp 7 -yp 8 -zp 9 -base E -partd 1 0,1 2)
    finish "$d" water.control water.coord water.basis water.mos

    # The same job through standard input: option changes between requests,
    # storage order, accuracies, reuse and -force, a base name, single points.
    d=$(case_dir water_stdin)
    copy_job "$data/water/water" "$d" control coord basis mos
    (cd "$d" && kvx $'-xp 12 -yp 11 -zp 10 -fgrid 0 -den -ep\n-moacc 1e-8 -moa 3\n-den\n-thresh 1e-9 -ep -chelp\n-force 1 -den\n-force 0 -den -moa 3\n-base MyRun -den -moa 2\n-point -px 0.3 -py -0.2 -pz 0.1 -den -moa 3 -ep -spin\n-point -xp 2 -xr 0.9 -yp 1 -yr 1.1 -zp 0 -zr 1.3 -den -ep\n-end\n-den\n' water)
    (cd "$d" && tool kalvex-cube water "$(ls -t -- *-den.grid | tail -n 1)" stored.cube --storage-order)
    finish "$d" water.control water.coord water.basis water.mos

    # Default 30^3 grid (kept as checksums), and many potential slices.
    d=$(case_dir water_default)
    copy_job "$data/water/water" "$d" control coord basis mos
    (cd "$d" && kvx "" water -den -moa 5 -ep -chelp && kvx "" water -memmax 0.05 -xp 10 -yp 10 -zp 10 -ep)
    finish "$d" water.control water.coord water.basis water.mos

    # Hydroxyl radical UHF/6-31G*: both spins.
    d=$(case_dir ohrad_all)
    copy_job "$data/ohrad/ohrad" "$d" control coord basis mos mob
    (cd "$d" && kvx "" ohrad -xp 9 -yp 8 -zp 7 -den -dena -denb -spin -moa 5 -mob 4 -mob 5 \
        -partd 1 1-5 1-4 -parts 1 1-5 1-4 -parts 2 1 1 -ep -chelp &&
        kvx "" ohrad -spin -ep)
    finish "$d" ohrad.control ohrad.coord ohrad.basis ohrad.mos ohrad.mob

    # H2 in the one-file layout (orbital text sections, a localized orbital)
    # with its inversion symmetry.
    d=$(case_dir h2_onefile)
    copy_job "$data/h2/h2" "$d" kvm sym
    (cd "$d" && kvx "" h2 -xp 8 -yp 7 -zp 9 -den -moa 1 -moa 2 -loa 1 -partd 2 1 1 -ep -chelp)
    finish "$d" h2.kvm h2.sym

    # The bundled example (water RHF/cc-pVTZ as imported: spherical d, f10).
    d=$(case_dir example_water)
    copy_job "$root/examples/water/water" "$d" control coord basis mos
    (cd "$d" && kvx "" water -xp 9 -yp 8 -zp 7 -den -moa 5 -moa 6 -ep -chelp)
    finish "$d" water.control water.coord water.basis water.mos

    # psi4's Molden and FCHK files: import, then densities, orbitals, potential, charges.
    local name input
    for input in water_sp.molden water_cart.fchk water_tz.fchk oh_uhf.molden oh_rohf.fchk ch2_cart.molden \
        hf_qz.fchk; do
        name="${input%.*}"
        d=$(case_dir "psi4_$name")
        cp "$data/psi4/$input" "$d/"
        (cd "$d" && tool kalvex-import "$input" job &&
            kvx "" job -xp 8 -yp 7 -zp 6 -den -spin -moa 1 -moa 4 -mob 3 -ep -chelp && tool kalvex-info job)
        finish "$d" "$input"
    done

    # Refusals and usage.
    d=$(case_dir messages)
    (cd "$d" && kvx "" && kvx "" nosuchjob -den && tool kalvex-import nosuch.molden job &&
        tool kalvex-cube nosuchjob none.grid && kvx "" -h && kvx "" --version && tool kalvex-info nosuchjob)
    finish "$d"

    # Mistyped and incomplete lines: warnings on standard error, standard
    # output as without them; kalvex-info on the job.
    d=$(case_dir warnings)
    copy_job "$data/water/water" "$d" control coord basis mos
    (cd "$d" && kvx $'-thrsh 1e-9 -yp 1.5 -ep\n-partd 1 9-22,x,0 1\n-partd\n-parts 0 1 1 -moacc 1e-8x -den\n-xp\n' \
        water -xp 4 -yp 4 -zp 4 -dne -den den -moa 1-3 -moa 99 -moa 0 -mob 1 --hlep -moa &&
        kvx "" water -xp 3 -yp 3 -zp 3 --help -den && tool kalvex-info water)
    finish "$d" water.control water.coord water.basis water.mos

    # A property file of another job with the same number of atoms: refused
    # by both view tools, taken with --any-job.
    d=$(case_dir foreign_file)
    copy_job "$data/water/water" "$d" control coord basis mos
    for ext in control coord basis mos; do cp "$root/examples/water/water.$ext" "$d/tz.$ext"; done
    (cd "$d" && kvx "" water -xp 5 -yp 6 -zp 7 -base w -den &&
        tool kalvex-cube tz w-den.grid tz.cube; tool kalvex-slice tz w-den.grid --plane z=0 tz.svg;
        tool kalvex-cube water w-den.grid water.cube && tool kalvex-cube tz w-den.grid any.cube --any-job)
    finish "$d" water.control water.coord water.basis water.mos tz.control tz.coord tz.basis tz.mos
}

mode="${1:-}"
case "$mode" in
    run)
        BIN="$(cd "$2" && pwd)"
        mkdir -p "$3"
        OUT="$(cd "$3" && pwd)"
        run_cases
        ;;
    make)
        BIN="$(cd "$2" && pwd)"
        OUT="$golden"
        mkdir -p "$golden"
        find "$golden" -mindepth 1 -maxdepth 1 -type d -exec rm -rf {} +
        run_cases
        ;;
    check)
        BIN="$(cd "$2" && pwd)"
        OUT="$(mktemp -d "${TMPDIR:-/tmp}/kvx_golden.XXXXXX")"
        trap 'rm -rf "$OUT"' EXIT
        run_cases
        if diff -r -x README.md "$golden" "$OUT" >"$OUT.diff" 2>&1; then
            rm -f "$OUT.diff"
            echo "golden outputs: identical"
        else
            echo "golden outputs differ from tests/data/golden:"
            head -n 60 "$OUT.diff"
            rm -f "$OUT.diff"
            exit 1
        fi
        ;;
    *)
        echo "usage: golden.sh run BIN_DIR OUT_DIR | make BIN_DIR | check BIN_DIR" >&2
        exit 2
        ;;
esac
