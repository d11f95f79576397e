// The comma splitter of the CSV exports with the table they use: a 100-byte
// copy buffer and 20 slots, each on the heap at its exact size.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "korl/korl.h"
#include "fuzz_check.h"

namespace {

constexpr int kSlots = 20;
constexpr uint32_t kBuffer = 100;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::strlen(text.c_str()));
    auto* buffer = new char[kBuffer];
    auto** table = new char*[kSlots];
    table[0] = buffer;
    int r = korl_parse_csv(text.c_str(), table, kSlots, kBuffer);
    long commas = std::count(text.begin(), text.end(), ',');
    if (text.size() >= kBuffer || commas + 1 >= kSlots) {
        check(r == -1);
    } else if (text.empty()) {
        check(r == 0);
    } else {
        check(r == commas + 1);
        std::string joined;
        for (int i = 1; i <= r; ++i) {
            check(table[i] >= buffer && table[i] < buffer + kBuffer);
            joined += table[i];
            if (i < r) joined += ',';
        }
        check(joined == text);
    }
    delete[] table;
    delete[] buffer;
    return 0;
}
