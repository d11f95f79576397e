// The velkinfo action as the user sees it: stdout, stderr and exit status
// of the real kor binary, byte for byte.
#include "mkvelk.h"
#include "support/sandbox.h"

using mkvelk::bytes;

const std::string kDash = "-------------------------------------------------------\n";
const std::string kFlags = "covered_by_signature....: 0\nvalidated_by_signature..: 0\n";

static std::string release_block(int valid)
{
    return kDash + "Content Part: 0, type 1, name release\nvalid...................: " + std::to_string(valid) + "\n" + kFlags +
           "release_version_major..: 1\nrelease_version_minor..: 2\nrelease_build_number...: 345\n"
           "release_date...........: 1700000000\nrelease_build_id.......: build-77\n";
}

static std::string software_block(int valid)
{
    return kDash + "Content Part: 1, type 4, name rootfs\nvalid...................: " + std::to_string(valid) +
           "\n" + kFlags + "sw_version_major..: 3\nsw_version_minor..: 4\nsw_build_number...: 567\nsw_build_id.......: sw-9\n";
}

const std::string kDataBlock = kDash + "Content Part: 2, type 3, name blob\nvalid...................: 1\n" + kFlags;
const std::string kNoHeader = "velkinfo: no header\nvelkinfo: loading VELK failed.\n";

// Release header (part 0, body at 100), software part (1), data part (2, the last 12 bytes).
static bytes release_image(size_t release_body = 14)
{
    return mkvelk::build_image({
        mkvelk::release_header(1, 2, 345, 1700000000, "build-77", std::string(release_body - 1, 'x')),
        mkvelk::software("rootfs", 3, 4, 567, "sw-9", bytes(100, 0x11)),
        mkvelk::data("blob", bytes(10, 0x22)),
    });
}

static bytes changed(bytes b, size_t at) { return b[at] ^= 1, b; }
static bytes cut(bytes b, size_t n) { return b.resize(n), b; }

TEST(Velkinfo, ReportsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    const bytes img = release_image();
    const size_t software_body = 24 + 76 + 16 + 44;  // id, release part, its padded body, software header
    const std::string all = release_block(1) + software_block(1) + kDataBlock;
    // args after the action word, "$F" standing for the file's path
    const struct { const char* what; bool exists; bytes file; std::vector<std::string> args; int status; std::string out, err; } rows[] = {
        {"header only", true, img, {"$F"}, 0, release_block(1), ""},
        {"all parts", true, img, {"$F", "-all"}, 0, all, ""},
        {"-allparts", true, img, {"$F", "-allparts"}, 0, all, ""},
        {"bad release body", true, changed(img, 100), {"$F"}, 0, release_block(-1), ""},
        {"bad software body, -all", true, changed(img, software_body), {"$F", "-all"}, 0,
         release_block(1) + software_block(-1), ""},
        {"truncated, -all", true, cut(img, img.size() - 4), {"$F", "-all"}, 0, release_block(1) + software_block(1), ""},
        {"release header beyond 1024", true, release_image(2000), {"$F"}, 0,
         kDash + "WARNING: CONTENT HEADER IS NULL? Skipping.\n", ""},
        {"text file", true, bytes(100, 'a'), {"$F"}, 9, "", kNoHeader},
        {"10 bytes, -all", true, cut(img, 10), {"$F", "-all"}, 9, "", kNoHeader},
        {"24 bytes", true, mkvelk::build_image({}), {"$F"}, 9, "", kNoHeader},
        {"24 bytes, -all", true, mkvelk::build_image({}), {"$F", "-all"}, 9, "", kNoHeader},
        {"missing", false, {}, {"$F"}, 8, "", "velkinfo: could not open VELK\n"},
        {"no path", false, {}, {}, 1, "", "velkinfo: VELK is missing.\n"},
        {"empty", true, {}, {"$F"}, 9, "", "velkinfo: empty VELK\n"},
        {"above -velksize", true, img, {"$F", "-velksize=100", "-all"}, 9, "", "velkinfo: VELK too big\n"},
        {"exactly -velksize", true, img, {"$F", "-velksize=" + std::to_string(img.size())}, 0, release_block(1), ""},
    };
    sandbox::Device d;
    int n = 0;
    for (const auto& r : rows) {
        std::string path = d.workdir() + "/image" + std::to_string(n++) + ".velk";
        if (r.exists) d.write_file(path, std::string(r.file.begin(), r.file.end()));
        std::vector<std::string> args = {"velkinfo"};
        for (const std::string& a : r.args) args.push_back(a == "$F" ? path : a);
        sandbox::RunResult res = d.kor(args);
        EXPECT_EQ(std::to_string(res.status) + "\n" + res.out + "stderr:\n" + res.err,  // one diff per row
                  std::to_string(r.status) + "\n" + r.out + "stderr:\n" + r.err) << r.what;
    }
}
