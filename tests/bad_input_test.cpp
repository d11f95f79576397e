// Bounds and refusals through the command line that only show end to end: the status, the message, and that
// nothing was written (hostconfig copies, flags area, content partitions, no lock file left).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;

namespace {

const std::string kKernel = "2,KNLS,0,-,-,-,1.0.1,1\n", kKept = "-1,KNLS,0,-,-,-,1.0.1,1\n";

std::string repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

// Release 1.0.1 with the given descriptor and `extra` more data parts.
bytes release(const std::string& korm, int extra = 0)
{
    std::vector<mkvelk::part> parts = {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
                                       mkvelk::software("kernel", 1, 0, 1, "k", bytes(700, 0x5A))};
    for (int i = 0; i < extra; ++i) parts.push_back(mkvelk::data("d" + std::to_string(i), bytes(4, 0x5A)));
    return mkvelk::build_image(parts);
}

// What a refused run must leave as it was.
bytes device_state(const Device& d)
{
    bytes all = d.read(Device::part(3), 0, 8192);
    for (const bytes& b : {d.read(Device::part(3), 0x3FE00, 2), d.read(Device::part(4), 0, 8192)})
        all.insert(all.end(), b.begin(), b.end());
    for (int n : {5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) {
        bytes b = d.read(Device::part(n), 0, 4096);
        all.insert(all.end(), b.begin(), b.end());
    }
    return all;
}

TEST(BadInput, RefusedClearlyAndNothingWritten)
{
    KOR_SANDBOX_OR_SKIP();
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/info_default.txt");
    const std::string deflt(std::istreambuf_iterator<char>(in), {}), set = "1.00 1     11    ACTIVE SET",
                      p100(100, 'p'), kormd = "install: korl_parse_kormd failed: ",
                      tl = " value too long (at most 99 characters).\n",
                      l2000 = kKernel.substr(0, 22) + std::string(1978, ' ') + "\n";
    // IMG: the row's release (korm, extra parts). shortkd: a "KOR data" body of 100 bytes on p3 (1) or on both (2).
    const struct { const char* name; std::string args; int status; std::string message, korm = "";
                   int extra = 0, shortkd = 0; } rows[] = {
        {"19 words", "info" + repeat(" w", 18), 0, ""},
        {"-cfg= of 99 characters", "info -cfg=/" + p100.substr(2), 0, deflt},
        {"-cfgbak= of 100", "info -cfgbak=" + p100, 1, "-cfgbak" + tl},
        {"-autosetfile= of 100", "info -autosetfile=" + p100, 1, "-autosetfile" + tl},
        {"-activesetfile= of 100", "info -activesetfile=" + p100, 1, "-activesetfile" + tl},
        {"21 content parts", "install IMG 1", 9, "velk_stream_parser failed (r=-6).\n", kKernel, 18},
        {"20 content parts", "install IMG 1 -dryrun", 0, "", kKernel, 17},
        {"KORM line of 2000 characters", "install IMG 1", 9, kormd + "0\n", l2000},
        {"45 KORM elements", "install IMG 1", 9, kormd + "-1\n", repeat(kKernel, 45)},
        {"23 kept elements in a plan", "install IMG 1", 2, "install: partinfo korm match\n", repeat(kKept, 23)},
        {"22 kept elements in a plan", "install IMG 1 -dryrun", 0, "", repeat(kKept, 22)},
        {"short KOR data body", "info", 1, "info action: loading hostcfg failed.\n", "", 0, 2},
        {"short KOR data body, good backup", "info", 0, set, "", 0, 1},
    };
    Device d;
    d.with_default_layout(64 << 10);
    const std::string img = d.workdir() + "/row.velk";
    const bytes first = release(kKernel);
    d.write_file(img, std::string(first.begin(), first.end()));
    ASSERT_EQ(d.kor({"install", img, "2"}).status, 0);
    const bytes good = d.read(Device::part(3), 0, 5120);
    bytes shortkd = mkvelk::build_image({mkvelk::data("KOR data", bytes(good.begin() + 56, good.begin() + 156))});
    shortkd.resize(5120, 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        d.write(Device::part(3), 0, row.shortkd ? shortkd : good);
        d.write(Device::part(4), 0, row.shortkd == 2 ? shortkd : good);
        const bytes image = release(row.korm, row.extra);
        d.write_file(img, std::string(image.begin(), image.end()));
        std::istringstream words(row.args);
        std::vector<std::string> args;
        for (std::string w; words >> w;) args.push_back(w == "IMG" ? img : w);
        const bytes before = device_state(d);
        sandbox::RunResult r = d.kor(args);
        EXPECT_EQ(r.status, row.status) << r.err << r.out.substr(0, 400);
        EXPECT_NE((r.err + r.out).find(row.message), std::string::npos) << r.err << r.out.substr(0, 400);
        EXPECT_TRUE(device_state(d) == before) << "device written";
        EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "lock file left";
    }
}

}  // namespace
