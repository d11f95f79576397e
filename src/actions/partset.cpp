// "partset SETIDX [SETNAME] [-refs=PARTREFS]": define or clear one set by
// hand (bring-up and repairs).
#include "actions/actions.h"

#include <cstring>

#include "actions/set_reports.h"
#include "actions/set_words.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

constexpr char kRefsPrefix[] = "-refs=";

// The list behind "-refs=" into `refs` (all -1 first). It ends at the end
// of the text or at anything but a comma behind a number. Every entry must
// be a partition info index (or -1): a ref beyond the table would make
// later actions read past it. 0 or the exit status.
[[nodiscard]] int parse_refs(const char* list, int8_t refs[KORL_REFS])
{
    std::memset(refs, -1, KORL_REFS);
    int n = 0;
    const char* p = list;
    while (*p != '\0') {
        long long v = 0;
        const char* end = nullptr;
        if (!set_word_number(p, 0, &v, &end)) {
            log_console(LOG_ERR, "partset action: -refs= entry is not a number.\n");
            return 1;
        }
        if (n == KORL_REFS) {
            log_console(LOG_ERR, "partset action: -refs= holds more than %d references.\n",
                        KORL_REFS);
            return 1;
        }
        if (v < -1 || v >= KORL_PARTINFOS) {
            log_console(LOG_ERR, "partset action: -refs= entry %lld is out of range (-1..%d).\n",
                        v, KORL_PARTINFOS - 1);
            return 1;
        }
        refs[n++] = static_cast<int8_t>(v);
        if (*end != ',') break;
        p = end + 1;
    }
    return 0;
}

int wrong_syntax()
{
    log_console(LOG_ERR, "partset action: wrong syntax.\n");
    return 1;
}

}  // namespace

int action_partset(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "partset action: loading hostcfg failed.\n");
        return 1;
    }
    int setidx = 0;
    if (opts->nwords < 2 || !set_word_index(opts->words[1], 0, KORL_SETS - 1, &setidx))
        return wrong_syntax();

    int8_t refs[KORL_REFS];
    std::memset(refs, -1, sizeof refs);
    const char* refs_word = opts->nwords > 3 ? opts->words[3] : nullptr;
    if (refs_word && std::strncmp(refs_word, kRefsPrefix, sizeof kRefsPrefix - 1) == 0) {
        int r = parse_refs(refs_word + sizeof kRefsPrefix - 1, refs);
        if (r != 0) return r;
    }

    korl_partset& set = d.partset[setidx];
    set.bootable = 0;
    std::memcpy(set.refs, refs, sizeof refs);
    // An empty name frees the slot; a given one keeps at most 14 characters.
    kor_str_copy(set.name, sizeof set.name, opts->nwords > 2 ? opts->words[2] : "");

    korl_rhdr& rh = d.rhdr[setidx];
    rh.release_version_major = static_cast<uint8_t>(opts->meta_major);
    rh.release_version_minor = static_cast<uint8_t>(opts->meta_minor);
    rh.release_build_number = static_cast<uint16_t>(opts->meta_buildnumber);

    if (opts->v) print_set_reports(&d);
    if (!opts->dryrun && save_hostconfig(opts, &d, &hc, "partset") != 1) {
        log_always(LOG_CRIT, "hostcfg saving failed.\n");
        return 1;
    }
    return 0;
}
