// "getpartset SETIDX|active [POOL] [-pif=PIF]": the partitions of one set
// as CSV for the scripts on the device.
#include "actions/actions.h"

#include <cstdio>
#include <cstring>

#include "actions/set_reports.h"
#include "actions/set_words.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

// Character fields are NUL-padded but not NUL-terminated when full.
#define FIELD(f) static_cast<int>(sizeof(f)), (f)

struct row {
    int pidx;
    const korl_partinfo& p;
    const korl_pinfometa& m;
};

struct pif_field {
    const char* name;
    void (*print)(const row& r);
};

const pif_field kPifFields[] = {
    {"pidx", [](const row& r) { std::printf("%i", r.pidx); }},
    {"pool", [](const row& r) { std::printf("%.*s", FIELD(r.p.poolname)); }},
    {"pn", [](const row& r) { std::printf("%i", r.p.pn); }},
    {"offset", [](const row& r) { std::printf("0x%08X", r.p.offset); }},
    {"size", [](const row& r) { std::printf("0x%08X", r.p.size); }},
    {"size_dec", [](const row& r) { std::printf("%u", r.p.size); }},
    {"mountpnt", [](const row& r) { std::printf("%.*s", FIELD(r.p.mountpnt)); }},
    {"fstype", [](const row& r) { std::printf("%.*s", FIELD(r.p.fstype)); }},
    {"len", [](const row& r) { std::printf("0x%08X", r.m.body_length); }},
    {"len_dec", [](const row& r) { std::printf("%u", r.m.body_length); }},
    {"ver", [](const row& r) {
         std::printf("%i.%.2i", r.m.sw_version_major, r.m.sw_version_minor);
     }},
    {"ver_major", [](const row& r) { std::printf("%i", r.m.sw_version_major); }},
    {"ver_minor", [](const row& r) { std::printf("%.2i", r.m.sw_version_minor); }},
    {"build_num", [](const row& r) { std::printf("%i", r.m.sw_build_number); }},
    {"build_id", [](const row& r) { std::printf("%.*s", FIELD(r.m.sw_build_id)); }},
};

void print_full_line(const row& r)
{
    std::printf("%i,%.*s,%i,0x%08X,0x%08X,%.*s,%.*s,0x%08X,0x%08X,%i.%i,%i,%.*s\n", r.pidx,
                FIELD(r.p.poolname), r.p.pn, r.p.offset, r.p.size, FIELD(r.p.mountpnt),
                FIELD(r.p.fstype), r.m.body_crc, r.m.body_length, r.m.sw_version_major,
                r.m.sw_version_minor, r.m.sw_build_number, FIELD(r.m.sw_build_id));
}

// A name not in the table prints an empty field.
void print_pif_line(const row& r, const pif_list& pif)
{
    for (int i = 1; i <= pif.count; i++) {
        if (i > 1) std::fputs(",", stdout);
        for (const pif_field& f : kPifFields) {
            if (std::strcmp(f.name, pif.table[i]) == 0) {
                f.print(r);
                break;
            }
        }
    }
    std::fputs("\n", stdout);
}

int fail(const char* message)
{
    log_console(LOG_ERR, "%s", message);
    return 1;
}

// What the words ask for: which set, which pool, which columns.
struct request {
    bool active = false;
    int setidx = 0;
    const char* pool = nullptr;
    pif_list pif;
};

int parse_words(const kor_options* opts, request* q)
{
    const char* w1 = opts->nwords > 1 ? opts->words[1] : nullptr;
    if (!w1) return fail("getpartset action: SETIDX is missing.\n");
    if (std::strcmp(w1, "active") == 0) {
        q->active = true;
    } else {
        long long v = 0;
        const char* end = nullptr;
        if (!set_word_number(w1, 0, &v, &end) || v < 0 || v >= KORL_SETS)
            return fail("getpartset action: SETIDX is illegal.\n");
        q->setidx = static_cast<int>(v);
    }
    const char* w2 = opts->nwords > 2 ? opts->words[2] : nullptr;
    const char* candidate = w2;
    if (w2 && w2[0] != '-') {
        q->pool = w2;
        candidate = opts->nwords > 3 ? opts->words[3] : nullptr;
    }
    if (!pif_parse(candidate, &q->pif))
        return fail("getpartset action: PIF could not parse or too long.\n");
    return 0;
}

}  // namespace

int action_getpartset(kor_options* opts)
{
    request q;
    int r = parse_words(opts, &q);
    if (r != 0) return r;
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) return fail("getpartset action: loading hostcfg failed.\n");
    if (q.active) {
        q.setidx = korl_actset_get(&d);
        // A damaged record could name a set that does not exist.
        if (q.setidx >= KORL_SETS) return fail("getpartset action: SETIDX is illegal.\n");
    }
    if (opts->v) print_set_reports(&d);

    const bool head = !q.pool && q.pif.count == 0;
    if (head) {
        std::puts("# KOR Partion Set CSV version 1.0");
        std::printf("# Selected Partition Set: %i\n", q.setidx);
        std::puts("# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id");
    }
    for (int8_t ref : d.partset[q.setidx].refs) {
        if (ref == -1) break;
        if (ref < 0 || ref >= KORL_PARTINFOS) continue;  // not an entry of the table
        const row rw{ref, d.partinfo[ref], d.pinfometa[ref]};
        if (q.pool && !set_field_equals(rw.p.poolname, sizeof rw.p.poolname, q.pool)) continue;
        if (q.pif.count == 0)
            print_full_line(rw);
        else
            print_pif_line(rw, q.pif);
    }
    if (head) std::puts("# End of list");
    std::fflush(stdout);
    return 0;
}
