// KORM descriptor text of any content (the body of a "korm" part, which the
// receiver only accepts NUL-terminated).
#include <cstdlib>
#include <cstring>
#include <vector>

#include "korl/korl.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    // Exactly the pipeline's array on the heap: a write past it is a report.
    auto* elements = new korm_element[KORL_KORM_ELEMENTS];
    int n = korl_parse_kormd(elements, KORL_KORM_ELEMENTS, text.data());
    check(n >= -1 && n <= KORL_KORM_ELEMENTS);
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element& e = elements[i];
        if (n >= 0) check(e.used == (i < n ? 1 : 0));
        if (!e.used) continue;
        check(terminated(e.poolname) && terminated(e.mountpnt) && terminated(e.fstype) &&
              terminated(e.platform));
        check(e.meta_valid <= 2 && e.partinfo_idx == -1 && e.action == 0);
    }
    delete[] elements;
    return 0;
}
