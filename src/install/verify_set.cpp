// Read-back check of every partition of one set.
#include <cstring>

#include "base/console.h"
#include "install/install.h"

namespace {

constexpr const char* TAG = "verify_set";

// The stored name fields need not end in a NUL; print them bounded.
struct field_text {
    char s[17];
};

field_text text_of(const char* field, size_t size)
{
    field_text t{};
    std::memcpy(t.s, field, size < sizeof t.s - 1 ? size : sizeof t.s - 1);
    return t;
}

void print_ref(const korl_data* d, int r, const char* word)
{
    zb_printf("%s:   ref %2d: %-12s %-12s: %s\n", TAG, r,
              text_of(d->partinfo[r].poolname, sizeof d->partinfo[r].poolname).s,
              text_of(d->pinfometa[r].name, sizeof d->pinfometa[r].name).s, word);
}

// The result of one ref, 0 when it holds its recorded content.
int check_ref(const korl_data* d, int r, int verbose)
{
    const korl_pinfometa& m = d->pinfometa[r];
    int c = (m.body_length == 0 || m.body_crc == 0) ? KORL_CRC_EMPTY : crc32_check(d, r, 1);
    if (verbose) print_ref(d, r, c == KORL_CRC_OK ? "ok" : c == KORL_CRC_EMPTY ? "empty" : "bad");
    return c;
}

}  // namespace

int verify_set(kor_options*, korl_data* d, int setidx, int verbose)
{
    KOR_ASSERT("kor", d != nullptr);
    KOR_ASSERT("kor", setidx >= 0 && setidx < KORL_SETS);
    const korl_partset& set = d->partset[setidx];
    if (verbose)
        zb_printf("%s: Set %d: %s\n", TAG, setidx, text_of(set.name, sizeof set.name).s);
    if (set.refs[0] < 0) {
        if (verbose) zb_printf("%s:   no refs\n", TAG);
        return 1;
    }
    int result = 0;
    for (int k = 0; k < KORL_REFS && set.refs[k] >= 0; ++k) {
        int r = set.refs[k];
        int c = r < KORL_PARTINFOS ? check_ref(d, r, verbose) : KORL_CRC_UNREADABLE;
        if (c != KORL_CRC_OK) result = c;
    }
    return result;
}
