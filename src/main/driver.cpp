#include "main/driver.h"

#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "chelp/chelp.h"
#include "common/fatal.h"
#include "common/parallel.h"
#include "common/version.h"
#include "elepot/elepot.h"
#include "grid/density.h"
#include "grid/grid.h"
#include "grid/gto.h"
#include "grid/property_grid.h"
#include "main/grid_cost.h"
#include "main/input.h"
#include "main/output.h"
#include "main/select.h"
#include "main/usage.h"
#include "main/word_check.h"
#include "moldata/lattice.h"
#include "moldata/property_words.h"
#include "moldata/reader.h"

namespace kvx::main {

using common::abort_flag;
using grid::PropertyGrid;
using moldata::DataFlags;
using moldata::Molecule;
using moldata::OrbitalSet;
using moldata::PropertyWord;

namespace {

extern "C" void on_sigint(int) {
    abort_flag = 1;
    std::signal(SIGINT, on_sigint);  // re-arm: the next Ctrl-C cancels the next property
}

void print_banner() {
    const std::string rule(80, '=');
    std::printf("%s\n\n", rule.c_str());
    std::printf("                              Kalvex version %s\n", common::kVersion);
    std::printf("\n%s\n", rule.c_str());
}

// Per-run working objects: the grid and the two property families built on it.
struct RunState {
    std::unique_ptr<Molecule> mol;
    DataFlags flags;
    std::uint32_t identity = 0;
    std::string jobname;

    std::unique_ptr<grid::Grid> grid;
    int changed = 0;  // option lines that changed a setting since the grid was built

    std::unique_ptr<PropertyGrid> potgrid;
    int pot_ready = 0;
    std::unique_ptr<PropertyGrid> orbgrid;
    int orb_ready = 0;
    int chelp_ready = 0;

    std::uint32_t grid_stamp = 0, pot_stamp = 0, orb_stamp = 0;
    std::string pot_base, orb_base;
};

void release_potential(RunState& st) {
    st.potgrid.reset();
    st.pot_ready = 0;
    elepot::elepot_cleanup();
}

void release_orbitals(RunState& st) {
    st.orbgrid.reset();
    st.orb_ready = 0;
    grid::gto_free();
}

void build_grid(RunState& st) {
    double centre[3], half[3][3] = {}, spacing[3];
    int counts[3];
    if (opt_i("-point")) {
        centre[0] = opt_d("-px");
        centre[1] = opt_d("-py");
        centre[2] = opt_d("-pz");
        for (int d = 0; d < 3; ++d) {
            half[d][d] = 0.5;
            spacing[d] = 0.5;
            counts[d] = 3;
        }
    } else {
        const char* s[3] = {"-xs", "-ys", "-zs"};
        const char* l[3] = {"-xl", "-yl", "-zl"};
        const char* r[3] = {"-xr", "-yr", "-zr"};
        const char* p[3] = {"-xp", "-yp", "-zp"};
        for (int d = 0; d < 3; ++d) {
            half[d][d] = opt_d(l[d]) / 2;
            centre[d] = opt_d(s[d]) + opt_d(l[d]) / 2;
            spacing[d] = opt_d(r[d]);
            counts[d] = opt_i(p[d]);
        }
    }
    st.grid = grid::grid_build(3, centre, half, spacing, counts);
    st.changed = 0;
}

void make_stamps(RunState& st) {
    st.grid_stamp = grid_stamp(st.grid.get(), st.identity);
    const double thresh = opt_d("-thresh");
    const double moacc = opt_d("-moacc");
    st.pot_stamp = stamp(&thresh, sizeof thresh, st.grid_stamp);
    st.orb_stamp = stamp(&moacc, sizeof moacc, st.grid_stamp);
    const char* base = opt_c("-base");
    if (base[0]) {
        st.pot_base = base;
        st.orb_base = base;
    } else {
        char text[17];
        stamp_text(st.pot_stamp, text);
        st.pot_base = text;
        stamp_text(st.orb_stamp, text);
        st.orb_base = text;
    }
}

// Creates the orbital/density property grid and its basis builder on first use.
bool ensure_orbital_grid(RunState& st) {
    if (!st.orbgrid) {
        st.orbgrid = grid::property_grid_create(st.grid.get());
        if (!st.orbgrid) return false;
        st.orb_ready = grid::gto_setup(st.mol.get(), st.grid.get(), opt_d("-moacc"), opt_i("-numt"));
    }
    return st.orb_ready != 0;
}

bool ensure_potential_grid(RunState& st) {
    if (!st.potgrid) {
        st.potgrid = grid::property_grid_create(st.grid.get());
        if (!st.potgrid) return false;
        st.pot_ready = elepot::elepot_init(st.mol.get(), st.grid.get(), opt_d("-memmax"), opt_d("-thresh"),
                                           opt_i("-numt"));
    }
    return st.pot_ready != 0;
}

// True when an up-to-date file makes the calculation unnecessary.
bool reuse_existing(const std::string& name, std::uint32_t s) {
    if (opt_i("-force") || !file_exists(name, s)) return false;
    std::puts("File exists, skipping calculation");
    std::printf("Property file: %s\n", name.c_str());
    return true;
}

const double* occ_ptr(const std::optional<std::vector<double>>& occ) { return occ ? occ->data() : nullptr; }

void run_orbital(RunState& st, const Request& rq, const PropertyWord& word, const OrbitalSet* set) {
    if (!ensure_orbital_grid(st)) return;
    st.orbgrid->filename = name_file(st.orb_base.c_str(), opt_c("-path"), word, rq.arg1);
    if (reuse_existing(st.orbgrid->filename, st.orb_stamp)) return;
    int n = 0;
    const bool computable = rq.arg1[0] && std::sscanf(rq.arg1, "%d", &n) == 1 && n >= 1 && n <= set->count;
    abort_flag = 0;
    grid::fill_mo(st.orbgrid.get(), set, rq.arg1, moldata::file_word(word));
    // An orbital number that fill_mo refused leaves nothing worth writing.
    if (computable && !abort_flag) write_property(st.orbgrid.get(), st.orb_stamp, opt_i("-fgrid"));
    abort_flag = 0;
}

void run_density(RunState& st, const PropertyWord& word, const OrbitalSet* aset,
                 std::optional<std::vector<double>>& occa, const OrbitalSet* bset,
                 std::optional<std::vector<double>>& occb, bool reuse) {
    if (!ensure_orbital_grid(st)) return;
    st.orbgrid->filename = name_file(st.orb_base.c_str(), opt_c("-path"), word, nullptr);
    if (reuse && reuse_existing(st.orbgrid->filename, st.orb_stamp)) return;
    abort_flag = 0;
    grid::fill_density(st.orbgrid.get(), occa ? aset : nullptr, occ_ptr(occa), occb ? bset : nullptr, occ_ptr(occb),
                       moldata::file_word(word));
    occa.reset();
    occb.reset();
    if (!abort_flag) write_property(st.orbgrid.get(), st.orb_stamp, opt_i("-fgrid"));
    abort_flag = 0;
}

// -partd / -parts: orbital type, alpha list, beta list. Always recomputed.
void run_partial(RunState& st, Request& rq, const PropertyWord& word, bool spin) {
    int type = -666;
    if (std::sscanf(rq.arg1, "%d", &type) != 1) type = -666;
    const bool ok = spin ? (type == 1 || type == 2) : (type >= 0 && type <= 2);
    if (!ok) {
        std::printf(spin ? "Partial spin density: cannot understand motype %s\n"
                         : "Partial density: cannot understand motype %s\n",
                    rq.arg1);
        return;
    }
    const Molecule& mol = *st.mol;
    const OrbitalSet* aset = type == 1 ? mol.alpha.get() : type == 2 ? mol.localized.get() : mol.natural.get();
    const OrbitalSet* bset = type == 1 ? mol.beta.get() : type == 2 ? mol.localized_beta.get() : nullptr;
    // An empty list argument means the occupied orbitals.
    auto occa = select_mos(mol, rq.arg2[0] ? rq.arg2 : nullptr, type, 0);
    std::optional<std::vector<double>> occb;
    if (bset) occb = select_mos(mol, rq.arg3[0] ? rq.arg3 : nullptr, -type, spin ? 1 : 0);
    run_density(st, word, aset, occa, bset, occb, false);
}

void run_potential(RunState& st) {
    if (!ensure_potential_grid(st)) return;
    st.potgrid->filename = name_file(st.pot_base.c_str(), opt_c("-path"), moldata::kPropertyWords[kReqEp], nullptr);
    if (reuse_existing(st.potgrid->filename, st.pot_stamp)) return;
    abort_flag = 0;
    elepot::comp_elepot(st.potgrid->values.data(), st.mol.get());
    if (!abort_flag) {
        st.potgrid->name = "ep";
        write_property(st.potgrid.get(), st.pot_stamp, opt_i("-fgrid"));
    }
    abort_flag = 0;
}

void run_chelp(RunState& st) {
    ensure_potential_grid(st);
    // The fit's state is set up whenever it is not, so -chelp right after -ep
    // (potential grid already present) still fits.
    if (!st.chelp_ready) st.chelp_ready = chelp::chelp_setup(st.mol.get(), opt_d("-thresh"));
    if (st.chelp_ready && st.pot_ready && st.potgrid) {
        abort_flag = 0;
        // Only the points the fit can use are integrated; the others keep
        // the nuclear term.
        const std::vector<unsigned char> admit = chelp::chelp_point_mask(st.grid.get());
        elepot::comp_elepot(st.potgrid->values.data(), st.mol.get(), admit.empty() ? nullptr : admit.data());
        if (!abort_flag) chelp::chelpg(st.potgrid.get(), st.jobname.c_str(), common::thread_count(opt_i("-numt")));
    }
    abort_flag = 0;
    chelp::chelp_release();
    st.chelp_ready = 0;
    release_potential(st);  // the next -ep or -chelp builds it afresh
}

// Before a large calculation its estimate goes to standard error, unless an
// up-to-date file will be taken instead.
void announce_cost(const RunState& st, const Request& rq, const PropertyWord& word) {
    if (opt_i("-point")) return;
    const std::string note = large_grid_note(*st.grid, rq.kind, *st.mol);
    if (note.empty()) return;
    if (word.writes_file && rq.kind != kReqPartd && rq.kind != kReqParts && !opt_i("-force")) {
        const bool pot = rq.kind == kReqEp;
        const std::string name = name_file((pot ? st.pot_base : st.orb_base).c_str(), opt_c("-path"), word,
                                           word.orbital ? rq.arg1 : nullptr);
        if (file_exists(name, pot ? st.pot_stamp : st.orb_stamp)) return;
    }
    std::fflush(stdout);
    std::fprintf(stderr, "kalvex: %s\n", note.c_str());
}

// The request's flag is tested first; then it runs by its kind.
void execute(RunState& st, Request& rq) {
    const PropertyWord& word = moldata::kPropertyWords[rq.kind];
    if (word.flag >= 0 && !st.flags[word.flag]) {
        std::puts(word.missing);
        return;
    }
    announce_cost(st, rq, word);
    const Molecule& mol = *st.mol;
    std::optional<std::vector<double>> occa, occb;
    switch (rq.kind) {
        case kReqEp:
            return run_potential(st);
        case kReqChelp:
            return run_chelp(st);
        case kReqMoa:
            return run_orbital(st, rq, word, mol.alpha.get());
        case kReqMob:
            return run_orbital(st, rq, word, mol.beta.get());
        case kReqLoa:
            return run_orbital(st, rq, word, mol.localized.get());
        case kReqLob:
            return run_orbital(st, rq, word, mol.localized_beta.get());
        case kReqNos:
            return run_orbital(st, rq, word, mol.natural.get());
        case kReqDen:
        case kReqSpin:
            if (st.flags[DataFlags::kAlpha]) occa = select_mos(mol, nullptr, 1, 0);
            if (st.flags[DataFlags::kBeta]) occb = select_mos(mol, nullptr, -1, rq.kind == kReqSpin ? 1 : 0);
            return run_density(st, word, mol.alpha.get(), occa, mol.beta.get(), occb, true);
        case kReqDena:
            occa = select_mos(mol, nullptr, 1, 0);
            return run_density(st, word, mol.alpha.get(), occa, mol.beta.get(), occb, true);
        case kReqDenb:
            occb = select_mos(mol, nullptr, -1, 0);
            return run_density(st, word, mol.alpha.get(), occa, mol.beta.get(), occb, true);
        case kReqPartd:
            return run_partial(st, rq, word, false);
        case kReqParts:
            return run_partial(st, rq, word, true);
        default:
            return;
    }
}

// Default box: the atoms' bounding box plus 5.7 bohr on every side.
void set_default_box(const Molecule& mol) {
    const moldata::Box box = moldata::default_box(mol.atoms);
    const char* s[3] = {"-xs", "-ys", "-zs"};
    const char* l[3] = {"-xl", "-yl", "-zl"};
    for (int d = 0; d < 3; ++d) {
        find_option(s[d])->dval = box.start[d];
        find_option(l[d])->dval = box.length[d];
    }
}

}  // namespace

int run(int argc, char** argv) {
    std::signal(SIGINT, on_sigint);
    const int pid = static_cast<int>(getpid());

    std::vector<char*> words(256, nullptr);
    if (argc < 2) {
        std::puts("Usage: kalvex jobname");
        std::fflush(stdout);
        std::fputs(usage_text().c_str(), stderr);  // the tables go beside the line scripts read
        return 0;
    }
    set_scratch_directory();

    RunState st;
    st.jobname = argv[1];
    // "kalvex -h" reads a job named -h like any other and says so on standard
    // output, as always; the usage (or version) follows on standard error.
    auto answer_job_word = [&] {
        std::fflush(stdout);
        if (is_help_word(argv[1])) std::fputs(usage_text().c_str(), stderr);
        if (is_version_word(argv[1])) std::fprintf(stderr, "%s\n", common::version_line("kalvex").c_str());
    };
    moldata::MoleculeLoad load = moldata::build_molecule(st.jobname);
    if (load.error) {
        std::puts(load.error.message.c_str());  // a refused job also ends with status 0
        answer_job_word();
        return 0;
    }
    if (!load.molecule) {
        std::printf("Cannot read molecular data for %s\n", argv[1]);
        answer_job_word();
        return 0;
    }
    // Incomplete orbital files: standard output stays as it is.
    for (const std::string& w : load.warnings) std::fprintf(stderr, "kalvex: %s\n", w.c_str());
    answer_job_word();
    st.mol = std::move(load.molecule);
    st.flags = st.mol->flags ? *st.mol->flags : moldata::compute_flags(*st.mol);
    st.identity = st.mol->density_checksum ? static_cast<std::uint32_t>(st.mol->density_checksum)
                                           : static_cast<std::uint32_t>(pid);
    set_point_mode_link(&find_option("-point")->ival);
    set_default_box(*st.mol);

    RequestQueue queue;
    if (argc > 2) {
        report_words(argc - 2, argv + 2, *st.mol);
        st.changed += parse_options(argc - 2, argv + 2);
        queue_requests(argc - 2, argv + 2, queue);
    }
    if (opt_i("-banner")) print_banner();
    std::printf("Process ID is %d\n", pid);
    std::fflush(stdout);

    std::vector<char> line(kLineBuffer, 0);
    bool told_terminal = false;
    for (;;) {
        if (queue.empty()) {
            if (!told_terminal && isatty(STDIN_FILENO)) {
                // At a terminal the wait for more words would look like a hang.
                std::fflush(stdout);
                std::fputs(
                    "kalvex: reading further requests from the terminal; -end or Ctrl-D ends the run "
                    "(Ctrl-C cancels only the property being computed)\n",
                    stderr);
                told_terminal = true;
            }
            const int nw = read_input_line(stdin, line.data(), words.data());
            report_words(nw, words.data(), *st.mol);
            st.changed += parse_options(nw, words.data());
            queue_requests(nw, words.data(), queue);
            continue;
        }
        Request& rq = queue.front();
        if (rq.kind == kReqEnd) break;

        if (st.grid && st.changed) {
            release_potential(st);
            release_orbitals(st);
            st.grid.reset();
        }
        if (!st.grid) build_grid(st);
        if (st.grid) {
            make_stamps(st);
            execute(st, rq);
        } else {
            std::puts("Main: cannot build a grid from the current options");
        }
        std::fflush(stdout);
        queue.pop_front();
    }

    release_orbitals(st);
    release_potential(st);
    st.grid.reset();
    st.mol.reset();
    return 0;
}

}  // namespace kvx::main
