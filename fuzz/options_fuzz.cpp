// The command line: the input split at its NULs into arguments behind
// "kor". The environment holds no KOR_PRODUCT or KOR_PLATFORM, so only the
// arguments decide. The parse may log; scripts/fuzz-sandbox keeps that off
// the host's syslog.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "fuzz_check.h"

namespace {

constexpr size_t kMaxArgs = 64;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    unsetenv("KOR_PRODUCT");
    unsetenv("KOR_PLATFORM");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Each argument in a block of its own, so reading past one is a report.
    std::vector<char*> argv{strdup("kor")};
    size_t start = 0;
    for (size_t i = 0; i <= size && argv.size() < kMaxArgs; ++i) {
        if (i < size && data[i] != 0) continue;
        auto* arg = static_cast<char*>(std::malloc(i - start + 1));
        std::memcpy(arg, data + start, i - start);
        arg[i - start] = '\0';
        argv.push_back(arg);
        start = i + 1;
    }
    std::vector<char*> copy = argv;  // the parse may keep pointers, never change them
    auto* o = new kor_options;
    int r = kor_options_parse(o, static_cast<int>(argv.size()), argv.data());
    check(terminated(o->cfg) && terminated(o->cfgbak) && terminated(o->lockfile) &&
          terminated(o->autosetfile) && terminated(o->activesetfile) &&
          terminated(o->product) && terminated(o->platform) && terminated(o->plugin));
    check(o->nwords >= 0 && o->nwords < KOR_MAX_WORDS && o->words[o->nwords] == nullptr);
    if (r == 0) check(o->nwords >= 1 && o->action == o->words[0] && o->cfg[0] != '\0');
    for (int i = 0; i < o->nwords; ++i) {
        bool found = false;
        for (char* a : copy) found = found || a == o->words[i];
        check(found);
    }
    delete o;
    for (char* a : argv) std::free(a);
    return 0;
}
