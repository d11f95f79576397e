// Bounds and refusals through the command line that only show end to end: the status, the message, and that
// nothing was written (hostconfig copies, flags area, content partitions, no lock file left).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes;
using sandbox::Device;

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

std::string image_path() { return sandbox::workdir() + "/row.velk"; }

// A run on one device holding set 2 installed, both hostconfig copies good unless the row shortens the "KOR data"
// of one or both; the image at image_path() holds the row's release. Nothing may be written and no lock file left.
class Row : public cli::Builder<Row> {
public:
    using Builder::Builder;
    Row& release(const std::string& korm, int extra_parts = 0)
    {
        korm_ = korm;
        extra_ = extra_parts;
        return *this;
    }
    Row& install(const std::string& args) { return arg("install").arg(image_path()).args(args); }
    Row& short_kor_data_on_primary() { short_copies_ = 1; return *this; }
    Row& short_kor_data_on_both() { short_copies_ = 2; return *this; }

    std::string korm_;
    int extra_ = 0, short_copies_ = 0;
};

std::vector<Row> rows()
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/info_default.txt");
    const std::string info_default(std::istreambuf_iterator<char>(in), {}), p100(100, 'p'),
                      kormd = "install: korl_parse_kormd failed: ",
                      too_long = " value too long (at most 99 characters).\n",
                      line2000 = kKernel.substr(0, 22) + std::string(1978, ' ') + "\n";
    return {
        Row("19 words").args("info" + repeat(" w", 18)).status(0),
        Row("-cfg= of 99 characters").args("info -cfg=/" + p100.substr(2)).status(0).stdout_has(info_default),
        Row("-cfgbak= of 100").args("info -cfgbak=" + p100).status(1).stderr_has("-cfgbak" + too_long),
        Row("-autosetfile= of 100").args("info -autosetfile=" + p100).status(1).stderr_has("-autosetfile" + too_long),
        Row("-activesetfile= of 100").args("info -activesetfile=" + p100).status(1)
            .stderr_has("-activesetfile" + too_long),
        Row("21 content parts").release(kKernel, 18).install("1").status(9)
            .stderr_has("velk_stream_parser failed (r=-6).\n"),
        Row("20 content parts").release(kKernel, 17).install("1 -dryrun").status(0),
        Row("KORM line of 2000 characters").release(line2000).install("1").status(9).stderr_has(kormd + "0\n"),
        Row("45 KORM elements").release(repeat(kKernel, 45)).install("1").status(9).stderr_has(kormd + "-1\n"),
        Row("23 kept elements in a plan").release(repeat(kKept, 23)).install("1").status(2)
            .stderr_has("install: partinfo korm match\n"),
        Row("22 kept elements in a plan").release(repeat(kKept, 22)).install("1 -dryrun").status(0),
        Row("short KOR data body").short_kor_data_on_both().args("info").status(1)
            .stderr_has("info action: loading hostcfg failed.\n"),
        Row("short KOR data body, good backup").short_kor_data_on_primary().args("info").status(0)
            .stdout_has("1.00 1     11    ACTIVE SET"),
    };
}

TEST(BadInput, RefusedClearlyAndNothingWritten)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    const bytes first = release(kKernel);
    d.write_file(image_path(), std::string(first.begin(), first.end()));
    ASSERT_EQ(d.kor({"install", image_path(), "2"}).status, 0);
    const bytes good = d.read(Device::part(3), 0, 5120);
    bytes short_copy = mkvelk::build_image({mkvelk::data("KOR data", bytes(good.begin() + 56, good.begin() + 156))});
    short_copy.resize(5120, 0);
    for (Row& row : rows()) {
        d.write(Device::part(3), 0, row.short_copies_ ? short_copy : good);
        d.write(Device::part(4), 0, row.short_copies_ == 2 ? short_copy : good);
        const bytes image = release(row.korm_, row.extra_);
        d.write_file(image_path(), std::string(image.begin(), image.end()));
        cli::run(row.device_unchanged().file_absent("/tmp/kor.lock"), d);
    }
}

}  // namespace
