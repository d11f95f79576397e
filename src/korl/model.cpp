// The partition metadata record: sets, partition entries and pools.
#include "korl/korl.h"

#include <cstdlib>
#include <cstring>

#include "base/console.h"

namespace {

constexpr const char* kModule = "korl";
constexpr uint32_t kPoolNameSize = sizeof(korl_partpool::name);
constexpr uint32_t kSetNameSize = sizeof(korl_partset::name);

bool valid_partinfo_idx(int idx) { return idx >= 0 && idx < KORL_PARTINFOS; }

// A pool slot holds a 16-byte name without a NUL when full, so an argument
// longer than 16 characters can never name a pool.
const korl_partpool* find_pool(const korl_data* d, const char* pool)
{
    if (!d->pools_valid || std::strlen(pool) > kPoolNameSize) return nullptr;
    for (const korl_partpool& p : d->partpool) {
        if (std::strncmp(p.name, pool, kPoolNameSize) == 0) return &p;
    }
    return nullptr;
}

// Puts entry `idx` into the first slot that is free or has its name. A
// pool is full at KORL_POOL_MEMBERS; a further member is left out of every
// pool and reported, so nothing plans with it as if it were a member.
void pool_add_entry(korl_data* d, int idx)
{
    const char* name = d->partinfo[idx].poolname;
    for (korl_partpool& p : d->partpool) {
        if (p.name[0] == 0) {
            std::memcpy(p.name, name, kPoolNameSize);
            p.items[0] = static_cast<int8_t>(idx);
            p.cnt = 1;
            d->pool_count++;
            return;
        }
        if (std::strncmp(p.name, name, kPoolNameSize) != 0) continue;
        if (p.cnt >= KORL_POOL_MEMBERS) {
            log_console(LOG_ERR, "korl: pool %.16s is full; partition entry %i is in no pool\n",
                        name, idx);
            return;
        }
        p.items[p.cnt++] = static_cast<int8_t>(idx);
        return;
    }
    // All slots in use by other names: the entry belongs to no pool.
}

}  // namespace

void korl_partpool_generate(korl_data* d)
{
    KOR_ASSERT(kModule, d != nullptr);
    std::memset(d->partpool, 0, sizeof d->partpool);
    d->pool_count = 0;
    d->pools_valid = 0;
    for (int i = 0; i < KORL_PARTINFOS; i++) {
        if (d->partinfo[i].poolname[0] != 0) pool_add_entry(d, i);
    }
    d->pools_valid = 1;
}

int korl_partpool_items(const korl_data* d, const char* pool, int8_t items[KORL_REFS])
{
    KOR_ASSERT(kModule, d != nullptr);
    KOR_ASSERT(kModule, pool != nullptr);
    KOR_ASSERT(kModule, items != nullptr);
    const korl_partpool* p = find_pool(d, pool);
    if (!p) return -1;
    std::memcpy(items, p->items, sizeof p->items);
    return p->cnt;
}

int korl_partpool_items_count(const korl_data* d, const char* pool)
{
    KOR_ASSERT(kModule, d != nullptr);
    KOR_ASSERT(kModule, pool != nullptr);
    const korl_partpool* p = find_pool(d, pool);
    return p ? p->cnt : -1;
}

int korl_partpool_count(const korl_data* d)
{
    KOR_ASSERT(kModule, d != nullptr);
    return d->pools_valid ? static_cast<int>(d->pool_count) : -1;
}

int korl_actset_activate(korl_data* d, int setidx)
{
    KOR_ASSERT(kModule, d != nullptr);
    d->actset = static_cast<uint8_t>(setidx);
    return 1;
}

int korl_actset_get(const korl_data* d)
{
    KOR_ASSERT(kModule, d != nullptr);
    return d->actset;
}

int korl_partinfo_owned_by_set(const korl_data* d, int partinfo_idx, int exclude_set)
{
    KOR_ASSERT(kModule, d != nullptr);
    // -1 marks the end of a list; it is never an entry a set owns.
    if (!valid_partinfo_idx(partinfo_idx)) return 0;
    for (int s = 0; s < KORL_SETS; s++) {
        if (s == exclude_set) continue;
        for (int8_t ref : d->partset[s].refs) {
            if (ref == partinfo_idx) return 1;
        }
    }
    return 0;
}

int korl_partinfo_mark_meta_invalid(korl_data* d, int partinfo_idx)
{
    KOR_ASSERT(kModule, d != nullptr);
    if (!valid_partinfo_idx(partinfo_idx)) return -1;
    korl_partinfo& p = d->partinfo[partinfo_idx];
    std::memset(p.mountpnt, 0, sizeof p.mountpnt);
    std::memset(p.fstype, 0, sizeof p.fstype);
    std::memset(&d->pinfometa[partinfo_idx], 0, sizeof(korl_pinfometa));
    return 1;
}

int korl_getsetidx(const korl_data* d, const char* name)
{
    KOR_ASSERT(kModule, d != nullptr);
    KOR_ASSERT(kModule, name != nullptr);
    if (name[0] == 0) return -2;
    for (int s = 0; s < KORL_SETS; s++) {
        if (std::strncmp(d->partset[s].name, name, kSetNameSize) == 0) return s;
    }
    return -1;
}

void partinfo_init(korl_data* d, int idx, const char* pool, uint32_t size, uint32_t offset)
{
    if (!d || !pool || !valid_partinfo_idx(idx)) return;
    korl_partinfo& p = d->partinfo[idx];
    std::memset(&p, 0, sizeof p);
    kor_field_copy(p.poolname, sizeof p.poolname, pool);
    p.pn = static_cast<uint8_t>(idx);
    p.size = size;
    p.offset = offset;
}

void partset_init(korl_data* d, int setidx, const char* name)
{
    if (!d || !name || setidx < 0 || setidx >= KORL_SETS) return;
    korl_partset& s = d->partset[setidx];
    std::memset(&s, 0, sizeof s);
    std::memset(s.refs, 0xFF, sizeof s.refs);
    kor_field_copy(s.name, sizeof s.name, name);
}

int parse_setidx_arg(const korl_data* d, const char* arg)
{
    if (!arg) return -1;
    long idx;
    if (arg[0] >= '0' && arg[0] <= '9') {
        // Decimal, 0x hexadecimal or 0 octal; trailing text is ignored.
        idx = std::strtol(arg, nullptr, 0);
    } else {
        idx = korl_getsetidx(d, arg);
    }
    return (idx >= 0 && idx < KORL_SETS) ? static_cast<int>(idx) : -1;
}

int korl_init(korl_data* d)
{
    KOR_ASSERT(kModule, d != nullptr);
    std::memset(d, 0, sizeof *d);
    return 1;
}
