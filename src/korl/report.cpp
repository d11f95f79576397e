// The metadata report and small diagnostic printers.
#include "korl/korl.h"

#include <ctime>

#include "base/console.h"

namespace {

// Character fields are NUL-padded but not NUL-terminated when full, so
// every one is printed with its field width as the precision.
#define FIELD(f) static_cast<int>(sizeof(f)), (f)

bool in_use(const char* name) { return name[0] != 0; }

void dump_sets_p1(const korl_data* d)
{
    zb_printf("Sets: (p1/2)\n");
    zb_printf("     name:            bootable:  rhdr:      refs:\n");
    for (int s = 0; s < KORL_SETS; s++) {
        const korl_partset& p = d->partset[s];
        if (!in_use(p.name)) continue;
        const korl_rhdr& r = d->rhdr[s];
        zb_printf(" %2i  %-15.*s  %1i         ", s, FIELD(p.name), p.bootable);
        zb_printf("%2i.%02i %-4i  ", r.release_version_major, r.release_version_minor,
                  r.release_build_number);
        for (int8_t ref : p.refs) {
            if (ref == -1) break;
            zb_printf("%i ", ref);
        }
        if (s == d->actset) zb_printf("   ACTIVE SET");
        zb_printf("\n");
    }
}

void dump_sets_p2(const korl_data* d)
{
    zb_printf("Sets: (p2/2)\n");
    zb_printf("     name:            release date:        release id:\n");
    for (int s = 0; s < KORL_SETS; s++) {
        const korl_partset& p = d->partset[s];
        if (!in_use(p.name)) continue;
        zb_printf(" %2i  %-15.*s  ", s, FIELD(p.name));
        korl_printf_time(d->rhdr[s].release_date);
        zb_printf("  %-20.*s", FIELD(d->rhdr[s].release_build_id));
        zb_printf("\n");
    }
}

void dump_partitions_p1(const korl_data* d)
{
    zb_printf("Partitions: (p1/2)\n");
    zb_printf("     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n");
    for (int i = 0; i < KORL_PARTINFOS; i++) {
        const korl_partinfo& p = d->partinfo[i];
        if (!in_use(p.poolname)) continue;
        const korl_pinfometa& m = d->pinfometa[i];
        zb_printf(" %2i  %2d  %-15.*s  0x%-8X  0x%-8X  %2i.%02i %-4i", i, p.pn, FIELD(p.poolname),
                  p.offset, p.size, m.sw_version_major, m.sw_version_minor, m.sw_build_number);
        zb_printf("  %-8.*s  %.*s\n", FIELD(p.fstype), FIELD(p.mountpnt));
    }
}

void dump_partitions_p2(const korl_data* d)
{
    zb_printf("Partitions: (p2/2)\n");
    zb_printf("     poolname:        content name:     length:     crc32:\n");
    for (int i = 0; i < KORL_PARTINFOS; i++) {
        const korl_partinfo& p = d->partinfo[i];
        if (!in_use(p.poolname)) continue;
        const korl_pinfometa& m = d->pinfometa[i];
        zb_printf(" %2i  %-15.*s  %-16.*s  0x%-8X  0x%-8X\n", i, FIELD(p.poolname), FIELD(m.name),
                  m.body_length, m.body_crc);
    }
}

void dump_pools(const korl_data* d)
{
    zb_printf("Pools:\n");
    zb_printf("     pool:            cnt:   type:\n");
    for (int i = 0; i < KORL_POOLS; i++) {
        const korl_partpool& p = d->partpool[i];
        if (!in_use(p.name)) continue;
        zb_printf(" %2i  %-15.*s  %-2i     ", i, FIELD(p.name), p.cnt);
        zb_printf(p.cnt == 1 ? "singleton\n" : "multi\n");
    }
}

}  // namespace

void korl_dump_info(const korl_data* d)
{
    KOR_ASSERT("korl", d != nullptr);
    dump_sets_p1(d);
    dump_sets_p2(d);
    dump_partitions_p1(d);
    dump_partitions_p2(d);
    dump_pools(d);
}

void korl_printf_time(int32_t seconds)
{
    time_t t = seconds;
    struct tm tm;
    if (!gmtime_r(&t, &tm)) {
        zb_printf("INVALID TIME");
        return;
    }
    zb_printf("%4i.%02i.%02i %02i:%02i:%02i", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
              tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void korl_dump_vercfg(const korl_data* d)
{
    KOR_ASSERT("korl", d != nullptr);
    zb_printf("KOR data version 1\n");
}

void korl_korm_dump_info(const korm_element* elements)
{
    KOR_ASSERT("korl", elements != nullptr);
    for (int i = 0; i < KORL_KORM_ELEMENTS; i++) {
        const korm_element& e = elements[i];
        zb_printf("%2i: used=%i cidx=%i action=%i poolname=%.*s platform=%.*s meta_valid=%u\n", i,
                  e.used, e.cidx, static_cast<int>(e.action), FIELD(e.poolname),
                  FIELD(e.platform), e.meta_valid);
    }
}
