// "partinfo PARTIDX [POOLNAME SIZE [options]]": define or clear one entry
// of the partition info table by hand (bring-up and repairs).
#include "actions/actions.h"

#include <climits>
#include <cstring>

#include "actions/set_reports.h"
#include "actions/set_words.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

constexpr long long kU32Max = 0xFFFFFFFFLL;

// What the option words after SIZE give; the defaults are the values of an
// entry described by PARTIDX POOLNAME SIZE alone.
struct partinfo_args {
    uint32_t offset = 0;
    char mountpnt[sizeof korl_partinfo::mountpnt] = {};
    char fstype[sizeof korl_partinfo::fstype] = {};
    uint32_t metacrc = 0;
    uint32_t metalength = 0;
    long long pn = -1;  // -1: the entry's own index
};

enum class conv { none, taken, bad };

// "PREFIX<number>" in `base`; a number that does not fit 32 bits is bad
// rather than silently wrapped.
[[nodiscard]] conv number_option(const char* word, const char* prefix, int base, long long lo, long long hi,
                   long long* out)
{
    size_t plen = std::strlen(prefix);
    if (std::strncmp(word, prefix, plen) != 0) return conv::none;
    long long v = 0;
    const char* end = nullptr;
    if (!set_word_number(word + plen, base, &v, &end)) return conv::none;
    if (v < lo || v > hi) return conv::bad;
    *out = v;
    return conv::taken;
}

[[nodiscard]] conv u32_option(const char* word, const char* prefix, int base, uint32_t* out)
{
    long long v = 0;
    conv c = number_option(word, prefix, base, 0, kU32Max, &v);
    if (c == conv::taken) *out = static_cast<uint32_t>(v);
    return c;
}

// One option word through the forms in their fixed order; the first that
// converts wins, a word that matches none is ignored.
[[nodiscard]] conv option_word(const char* w, partinfo_args* a)
{
    conv c = u32_option(w, "-offset=", 16, &a->offset);
    if (c != conv::none) return c;
    if (set_word_text(w, "-mount=", a->mountpnt, sizeof a->mountpnt)) return conv::taken;
    if (set_word_text(w, "-fstype=", a->fstype, sizeof a->fstype)) return conv::taken;
    c = u32_option(w, "-metacrc=", 10, &a->metacrc);
    if (c != conv::none) return c;
    c = u32_option(w, "-metalength=", 10, &a->metalength);
    if (c != conv::none) return c;
    // Any number converts here; the range check below names the failure.
    return number_option(w, "-pn=", 0, LLONG_MIN, LLONG_MAX, &a->pn);
}

int wrong_syntax()
{
    log_console(LOG_ERR, "partinfo action: wrong syntax.\n");
    return 1;
}

// PARTIDX POOLNAME SIZE [options] into entry `idx`. 0 or the exit status.
[[nodiscard]] int fill_entry(kor_options* opts, korl_data* d, int idx)
{
    if (opts->nwords < 4) return wrong_syntax();
    long long size = 0;
    const char* end = nullptr;
    if (!set_word_number(opts->words[3], 0, &size, &end) || *end != '\0' || size < 0 ||
        size > kU32Max)
        return wrong_syntax();
    partinfo_args a;
    for (int i = 4; i < opts->nwords; i++) {
        if (option_word(opts->words[i], &a) == conv::bad) return wrong_syntax();
    }
    if (a.pn < -1 || a.pn > 255) {
        log_console(LOG_ERR, "partinfo action: pn invalid.\n");
        return 1;
    }
    korl_partinfo& p = d->partinfo[idx];
    kor_field_copy(p.poolname, sizeof p.poolname, opts->words[2]);
    p.pn = static_cast<uint8_t>(a.pn == -1 ? idx : a.pn);
    p.offset = a.offset;
    p.size = static_cast<uint32_t>(size);
    std::memcpy(p.mountpnt, a.mountpnt, sizeof p.mountpnt);
    std::memcpy(p.fstype, a.fstype, sizeof p.fstype);
    korl_pinfometa& m = d->pinfometa[idx];
    m.body_crc = a.metacrc;
    m.body_length = a.metalength;
    m.sw_version_major = static_cast<uint8_t>(opts->meta_major);
    m.sw_version_minor = static_cast<uint8_t>(opts->meta_minor);
    m.sw_build_number = static_cast<uint16_t>(opts->meta_buildnumber);
    return 0;
}

}  // namespace

int action_partinfo(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "partinfo action: loading hostcfg failed.\n");
        return 1;
    }
    int idx = 0;
    if (opts->nwords < 2 || !set_word_index(opts->words[1], 0, KORL_PARTINFOS - 1, &idx))
        return wrong_syntax();
    if (opts->nwords == 2) {
        // The recorded content header stays: verify still reports what the
        // partition held.
        std::memset(&d.partinfo[idx], 0, sizeof d.partinfo[idx]);
    } else {
        int r = fill_entry(opts, &d, idx);
        if (r != 0) return r;
    }
    if (opts->v) print_set_reports(&d);
    if (!opts->dryrun && save_hostconfig(opts, &d, &hc, "partinfo") != 1) {
        log_always(LOG_CRIT, "hostcfg saving failed.\n");
        return 1;
    }
    return 0;
}
