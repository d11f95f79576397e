// "getrh SETIDX|SETNAME|active [-pif=PIF]": the release header of the
// release installed in a set, as CSV.
#include "actions/actions.h"

#include <cstdio>
#include <cstring>

#include "actions/set_words.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

#define FIELD(f) static_cast<int>(sizeof(f)), (f)

// The report formatter writes to the same stdout stream as the CSV.
void print_time(const korl_rhdr& h) { korl_printf_time(h.release_date); }

struct pif_field {
    const char* name;
    void (*print)(const korl_rhdr& h);
};

const pif_field kPifFields[] = {
    {"ver", [](const korl_rhdr& h) {
         std::printf("%i.%.2i", h.release_version_major, h.release_version_minor);
     }},
    {"ver_major", [](const korl_rhdr& h) { std::printf("%i", h.release_version_major); }},
    {"ver_minor", [](const korl_rhdr& h) { std::printf("%.2i", h.release_version_minor); }},
    {"build_num", [](const korl_rhdr& h) { std::printf("%i", h.release_build_number); }},
    {"build_id", [](const korl_rhdr& h) { std::printf("%.*s", FIELD(h.release_build_id)); }},
    {"build_time", print_time},
};

void print_pif_line(const korl_rhdr& h, const pif_list& pif)
{
    for (int i = 1; i <= pif.count; i++) {
        if (i > 1) std::fputs(",", stdout);
        for (const pif_field& f : kPifFields) {
            if (std::strcmp(f.name, pif.table[i]) == 0) {
                f.print(h);
                break;
            }
        }
    }
    std::fputs("\n", stdout);
}

void print_full(const korl_rhdr& h, int setidx)
{
    std::puts("# KOR Release Header CSV version 1.0");
    std::printf("# Selected Partition Set: %i\n", setidx);
    std::puts("# ver,build,build_id,build_time");
    std::printf("%i.%i,%i,%.*s,", h.release_version_major, h.release_version_minor,
                h.release_build_number, FIELD(h.release_build_id));
    print_time(h);
    std::puts("");
    std::puts("# End of list");
}

int fail(const char* message)
{
    log_console(LOG_ERR, "%s", message);
    return 1;
}

}  // namespace

int action_getrh(kor_options* opts)
{
    const char* w1 = opts->nwords > 1 ? opts->words[1] : nullptr;
    if (!w1) return fail("getrh: missing set idx?\n");
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) return fail("getrh: loading hostcfg failed.\n");
    int setidx = std::strcmp(w1, "active") == 0 ? korl_actset_get(&d) : parse_setidx_arg(&d, w1);
    // A damaged record could hold an active set that does not exist.
    if (setidx < 0 || setidx >= KORL_SETS) return fail("getrh: invalid set idx?\n");
    pif_list pif;
    if (!pif_parse(opts->nwords > 2 ? opts->words[2] : nullptr, &pif))
        return fail("getpartset action: PIF could not parse or too long.\n");

    if (pif.count == 0)
        print_full(d.rhdr[setidx], setidx);
    else
        print_pif_line(d.rhdr[setidx], pif);
    std::fflush(stdout);
    return 0;
}
