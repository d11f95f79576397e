// The install's checks before anything is written: the release header
// against -product and -minver, the recording of the plan, the CRC32
// check of every partition that the plan keeps, and the partitions the plan
// writes.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "install/install_steps.h"

namespace {

constexpr int GO_ON = INSTALL_GO_ON;

const velk_content_header* part0(const install_run* run)
{
    const velk_content_header* cp = install_parts(&run->ctx)[0];
    KOR_ASSERT("kor", cp);  // a complete image has its first part in memory
    return cp;
}

bool is_release_header(const velk_content_header* cp)
{
    return cp->type_id == VELK_TYPE_RELEASE_HEADER;
}

const korl_rhdr* release_info(const velk_content_header* cp)
{
    return reinterpret_cast<const korl_rhdr*>(reinterpret_cast<const uint8_t*>(cp) +
                                              VELK_CONTENT_HEADER_SIZE);
}

void log_release(const velk_content_header* cp)
{
    const korl_rhdr* rh = release_info(cp);
    const char* text = reinterpret_cast<const char*>(cp) + sizeof(velk_release_header);
    log_always(LOG_NOTICE, "install: release %u.%u-%u, '%.*s'\n", rh->release_version_major,
               rh->release_version_minor, rh->release_build_number,
               static_cast<int>(cp->body_length), text);
}

int check_product(const kor_options* o, const velk_content_header* cp)
{
    if (!o->product_set || o->f) return GO_ON;
    if (!is_release_header(cp)) {
        log_console(LOG_ERR, "Expected release header in VELK when using -product\n");
        return 6;
    }
    if (korl_match_model(cp, o->product)) return GO_ON;
    log_console(LOG_ERR, "install: Release header does not contain model '%s'\n", o->product);
    return 6;
}

// The minimum release file: 1 with the version in `v`, 0 when there is no
// such file, -1 when it cannot be read or holds anything but "M.N.B" (and a
// line end).
int read_min_release(const char* path, uint32_t v[3])
{
    if (!fnexists(path)) return 0;
    char text[32];
    int n = fnread(path, text, sizeof text - 1);
    if (n < 0 || n == static_cast<int>(sizeof text - 1)) return -1;
    text[n] = '\0';
    const uint32_t limits[3] = {255, 255, 65535};
    const char* p = text;
    for (int i = 0; i < 3; ++i) {
        if (i > 0 && *p++ != '.') return -1;
        if (*p < '0' || *p > '9') return -1;
        uint32_t x = 0;
        while (*p >= '0' && *p <= '9' && x <= limits[i]) x = x * 10 + static_cast<uint32_t>(*p++ - '0');
        if (x > limits[i]) return -1;
        v[i] = x;
    }
    if (*p == '\r') ++p;
    if (*p == '\n') ++p;
    return *p == '\0' ? 1 : -1;
}

// The device's own floor: a signed but old release must not bring back
// what a newer one fixed. -downgrade is the operator's way past it.
int check_floor(const kor_options* o, const velk_content_header* cp)
{
    if (o->downgrade) return GO_ON;
    const char* path = kor_min_release_file;
    uint32_t floor[3];
    int r = read_min_release(path, floor);
    if (r == 0) return GO_ON;
    if (r < 0) {
        log_console(LOG_ERR, "install: cannot read the minimum release from %s\n", path);
        return 7;
    }
    if (!is_release_header(cp)) {
        log_console(LOG_ERR, "Expected release header in VELK when %s sets a minimum release\n", path);
        return 7;
    }
    const korl_rhdr* rh = release_info(cp);
    if (korl_check_minver(rh->release_version_major, rh->release_version_minor,
                          rh->release_build_number, floor[0], floor[1], floor[2]))
        return GO_ON;
    log_console(LOG_ERR, "install: release %u.%u-%u is older than the minimum %u.%u-%u (%s)\n",
                rh->release_version_major, rh->release_version_minor, rh->release_build_number,
                floor[0], floor[1], floor[2], path);
    return 7;
}

// A signed image on a device without keys installs as any other; the log
// says that nobody looked at the signature.
void note_unchecked_signature(const install_run* run)
{
    const velk_content_header* sig = install_parts(&run->ctx)[VELK_SIG_PART];
    if (run->ctx.keys || !sig || velk_sig_check_header(sig) == VELK_SIG_ERR_NOT_SIGNED) return;
    log_always(LOG_NOTICE, "install: image is signed, but no keys are configured: signature not checked\n");
}

int check_minver(const kor_options* o, const velk_content_header* cp)
{
    if (!o->minver_set) return GO_ON;
    if (!is_release_header(cp)) {
        log_console(LOG_ERR, "Expected release header in VELK when using -minver\n");
        return 7;
    }
    const korl_rhdr* rh = release_info(cp);
    if (korl_check_minver(rh->release_version_major, rh->release_version_minor,
                          rh->release_build_number, o->minver_major, o->minver_minor,
                          o->minver_buildnumber))
        return GO_ON;
    log_console(LOG_ERR, "install: Version in release header lower than %u.%u-%u\n",
                o->minver_major, o->minver_minor, o->minver_buildnumber);
    return 7;
}

struct plan_failure {
    int code;
    const char* reason;
};
constexpr plan_failure plan_failures[] = {
    {KORL_META_INSTALL_ERR_NO_CONTENT, "install: no content\n"},
    {KORL_META_INSTALL_ERR_DEPENDENCY, "install: KORM dependencies not fulfilled in hostconfig\n"},
    {KORL_META_INSTALL_ERR_SINGLETON, "install: install into singleton without force option\n"},
    {KORL_META_INSTALL_ERR_EMPTY_POOL, "install: empty pool\n"},
    {KORL_META_INSTALL_ERR_NO_FREE_PARTINFO, "install: no free partinfo\n"},
    {KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, "install: partinfo korm match\n"},
    {KORL_META_INSTALL_ERR_FATAL, "install: fatal error\n"},
};

const char* plan_reason(int code)
{
    for (const plan_failure& f : plan_failures)
        if (f.code == code) return f.reason;
    return "install: unknown error type\n";
}

// The element's content part in the buffer; null when the image does not
// carry it or its body was left out of the transfer.
const velk_content_header* content_of(const install_run* run, const korm_element* e)
{
    if (e->cidx < 0 || e->cidx >= static_cast<int>(VELK_MAX_PARTS)) return nullptr;
    return install_parts(&run->ctx)[e->cidx];
}

// A shared partition failed its check: put a free one of the pool in its
// place, in the set and in the element.
int replace_shared(install_run* run, korm_element* e, const velk_content_header* cp)
{
    korl_data* d = &run->data;
    int setidx = run->ctx.setidx;
    log_always(LOG_NOTICE, "Other sets also refer to partition %i.\n", e->partinfo_idx);
    int p = korl_get_unused_partinfo(d, e->poolname, setidx);
    if (p < 0) {
        log_always(LOG_CRIT, "No free partitions in pool\n");
        return 1;
    }
    log_always(LOG_NOTICE, "Use free partition %i instead\n", p);
    for (int8_t& ref : d->partset[setidx].refs) {
        if (ref != e->partinfo_idx) continue;
        ref = static_cast<int8_t>(p);
        e->partinfo_idx = p;
        korl_meta_import_pinfometa(d, cp, e);
        return GO_ON;
    }
    log_always(LOG_CRIT, "Could not repleace pref in install set\n");
    return 1;
}

// Checks one element that the plan keeps; GO_ON or the exit status.
int check_element(install_run* run, korm_element* e)
{
    const kor_options* o = run->opts;
    const velk_content_header* cp = content_of(run, e);
    if (o->rewrite && e->action == 2 && cp) {
        log_always(LOG_NOTICE, "Mark partition %i for rewrite\n", e->partinfo_idx);
        e->action = 1;
        return GO_ON;
    }
    if (o->onlymeta) return GO_ON;
    // In a signed install the partition must also hold what the manifest
    // signed, not merely something with the same CRC32.
    const velk_manifest_entry* signed_entry = velk_sig_entry(&run->ctx.sig, e->cidx);
    int r = crc32_sha256_check(&run->data, e->partinfo_idx, e->wts,
                               signed_entry ? signed_entry->body_sha256 : nullptr);
    if (r == KORL_CRC_OK) {
        if (signed_entry && run->ctx.parser) run->ctx.parser->info[e->cidx].validated_by_signature = 1;
        return GO_ON;
    }
    if (r == KORL_SHA_MISMATCH)
        log_always(LOG_ERR, "SHA-256 of partition %i does not match the signed manifest\n",
                   e->partinfo_idx);
    if (!cp) {
        log_always(LOG_CRIT,
                   "CRC32 validation of partition %i failed. Only fixable with a non-partial "
                   "VELK.\n",
                   e->partinfo_idx);
        return 14;
    }
    log_always(LOG_NOTICE, "CRC32 validation for partition %i failed marking it for reinstall\n",
               e->partinfo_idx);
    if (korl_partinfo_owned_by_set(&run->data, e->partinfo_idx, run->ctx.setidx) == 1) {
        int r = replace_shared(run, e, cp);
        if (r != GO_ON) return r;
    } else {
        // What is written now is what the entry must record.
        korl_meta_import_pinfometa(&run->data, cp, e);
    }
    e->action = 1;
    return GO_ON;
}

// Bytes the write type lays out from the partition's first byte; 0 for a
// write type the writer refuses anyway.
uint64_t bytes_to_write(const velk_content_header* cp, uint8_t wts)
{
    const uint64_t body = cp->body_length;
    switch (wts) {
    case 1: return body;
    case 2: return cp->hdr_length + body;
    case 3: return ((body + 3) & ~uint64_t{3}) + cp->hdr_length;
    default: return 0;
    }
}

// A partition the plan writes must be there as a block device that holds
// what is written: a node opened for writing where none is would become a
// file in /dev, whose content lives in memory and is gone at the next boot,
// and a short partition would fail the write half-way inside the critical
// region.
int check_target(const install_run* run, const korm_element* e)
{
    if (e->partinfo_idx < 0 || e->partinfo_idx >= KORL_PARTINFOS) return GO_ON;
    const velk_content_header* cp = content_of(run, e);
    if (!cp) return GO_ON;  // the recording refused such a plan already
    char device[32];
    zb_snprintf(device, sizeof device, "/dev/mmcblk0p%i", run->data.partinfo[e->partinfo_idx].pn);
    unique_fd fd(::open(device, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ENOENT)
            log_console(LOG_ERR, "install: partition %s does not exist\n", device);
        else
            log_console(LOG_ERR, "install: could not open %s: %s\n", device, std::strerror(errno));
        return KOR_EXIT_TARGET_REFUSED;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISBLK(st.st_mode)) {
        log_console(LOG_ERR, "install: %s is not a block device\n", device);
        return KOR_EXIT_TARGET_REFUSED;
    }
    int read_only = 0;
    if (::ioctl(fd.get(), BLKROGET, &read_only) == 0 && read_only) {
        log_console(LOG_ERR, "install: %s is read-only\n", device);
        return KOR_EXIT_TARGET_REFUSED;
    }
    uint64_t size = 0;
    if (::ioctl(fd.get(), BLKGETSIZE64, &size) != 0) {
        log_console(LOG_ERR, "install: could not read the size of %s: %s\n", device,
                    std::strerror(errno));
        return KOR_EXIT_TARGET_REFUSED;
    }
    uint64_t need = bytes_to_write(cp, e->wts);
    if (size >= need) return GO_ON;
    log_console(LOG_ERR, "install: %s holds %llu bytes, %llu are to be written\n", device,
                static_cast<unsigned long long>(size), static_cast<unsigned long long>(need));
    return KOR_EXIT_TARGET_REFUSED;
}

}  // namespace

int check_release(install_run* run)
{
    const velk_content_header* cp = part0(run);
    if (is_release_header(cp)) log_release(cp);
    note_unchecked_signature(run);
    int r = check_product(run->opts, cp);
    if (r == GO_ON) r = check_minver(run->opts, cp);
    return r != GO_ON ? r : check_floor(run->opts, cp);
}

int record_plan(install_run* run)
{
    const kor_options* o = run->opts;
    const char* match = o->platform_set ? o->platform : o->product;
    run->stored = run->data;
    int r = korl_meta_install(&run->data, run->ctx.setidx, release_info(part0(run)),
                              run->ctx.korm, install_parts(&run->ctx),
                              match, o->f);
    if (r != KORL_META_INSTALL_OK) {
        log_console(LOG_ERR, "install: meta install in hostconfig failed (%i), reason:\n", r);
        log_console(LOG_ERR, "%s", plan_reason(r));
        return 2;
    }
    if (o->v) {
        log_console(LOG_DEBUG, "Result from korl_meta_install: %i\n", r);
        korl_partpool_generate(&run->data);
        korl_dump_info(&run->data);
        korl_upgrade_info();
    }
    return GO_ON;
}

int check_kept(install_run* run)
{
    bool partial_noted = false;
    for (korm_element& e : run->ctx.korm) {
        if (e.action == 0) continue;
        if (e.cidx == -1 && !partial_noted) {
            log_always(LOG_NOTICE, "Handling partial VELK\n");
            partial_noted = true;
        }
        if (e.action == 1) continue;
        int r = check_element(run, &e);
        if (r != GO_ON) return r;
    }
    return GO_ON;
}

int check_targets(install_run* run)
{
    if (run->opts->onlymeta) return GO_ON;
    for (const korm_element& e : run->ctx.korm) {
        if (e.action != 1) continue;
        int r = check_target(run, &e);
        if (r != GO_ON) return r;
    }
    return GO_ON;
}
