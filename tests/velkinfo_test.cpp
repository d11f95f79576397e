// The velkinfo action as the user sees it: stdout, stderr and exit status
// of the real kor binary, byte for byte.
#include <optional>

#include "mkvelk.h"
#include "support/sandbox.h"

using mkvelk::bytes;

static std::string block(const std::string& part, int valid, const std::string& fields = "")
{
    return std::string(55, '-') + "\nContent Part: " + part + "\nvalid...................: " +
           std::to_string(valid) + "\ncovered_by_signature....: 0\nvalidated_by_signature..: 0\n" + fields;
}
// Release header (part 0, body at 100), software part (1, body at 160), data part (2, the last 12 bytes).
static bytes image(size_t release_body = 14)
{
    return mkvelk::build_image({mkvelk::release_header(1, 2, 345, 1700000000, "build-77", std::string(release_body - 1, 'x')),
                                mkvelk::software("rootfs", 3, 4, 567, "sw-9", bytes(100, 0x11)), mkvelk::data("blob", bytes(10, 0x22))});
}
static bytes changed(bytes b, size_t at) { return b[at] ^= 1, b; }
static bytes cut(bytes b, size_t n) { return b.resize(n), b; }

TEST(Velkinfo, ReportsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    const bytes img = image();
    const auto release = [](int valid) {
        return block("0, type 1, name release", valid, "release_version_major..: 1\nrelease_version_minor..: 2\nrelease_build_number...: 345\n"
                                                       "release_date...........: 1700000000\nrelease_build_id.......: build-77\n");
    };
    const auto software = [](int valid) {
        return block("1, type 4, name rootfs", valid, "sw_version_major..: 3\nsw_version_minor..: 4\nsw_build_number...: 567\nsw_build_id.......: sw-9\n");
    };
    const std::string all = release(1) + software(1) + block("2, type 3, name blob", 1), none = "velkinfo: no header\nvelkinfo: loading VELK failed.\n";
    // The file (none: missing), args after the action word with "$F" standing for the file's path.
    const struct { const char* what; std::optional<bytes> file; std::vector<std::string> args; int status; std::string out, err; } rows[] = {
        {"header only", img, {"$F"}, 0, release(1), ""},
        {"all parts", img, {"$F", "-all"}, 0, all, ""},
        {"bad software body, -allparts", changed(img, 160), {"$F", "-allparts"}, 0, release(1) + software(-1), ""},
        {"bad release body", changed(img, 100), {"$F"}, 0, release(-1), ""},
        {"truncated, -all", cut(img, img.size() - 4), {"$F", "-all"}, 0, release(1) + software(1), ""},
        {"release header beyond 1024", image(2000), {"$F"}, 0, std::string(55, '-') + "\nWARNING: CONTENT HEADER IS NULL? Skipping.\n", ""},
        {"text file", bytes(100, 'a'), {"$F"}, 9, "", none},
        {"10 bytes, -all", cut(img, 10), {"$F", "-all"}, 9, "", none},
        {"24 bytes, -all", mkvelk::build_image({}), {"$F", "-all"}, 9, "", none},
        {"missing", std::nullopt, {"$F"}, 8, "", "velkinfo: could not open VELK\n"},
        {"no path", std::nullopt, {}, 1, "", "velkinfo: VELK is missing.\n"},
        {"empty", bytes{}, {"$F"}, 9, "", "velkinfo: empty VELK\n"},
        {"above -velksize", img, {"$F", "-velksize=100", "-all"}, 9, "", "velkinfo: VELK too big\n"},
        {"exactly -velksize", img, {"$F", "-velksize=" + std::to_string(img.size())}, 0, release(1), ""},
    };
    sandbox::Device d;
    for (const auto& r : rows) {
        const std::string path = d.workdir() + "/" + r.what + ".velk";
        if (r.file) d.write_file(path, std::string(r.file->begin(), r.file->end()));
        std::vector<std::string> args = {"velkinfo"};
        for (const std::string& a : r.args) args.push_back(a == "$F" ? path : a);
        sandbox::RunResult res = d.kor(args);
        EXPECT_EQ(std::to_string(res.status) + "\n" + res.out + "stderr:\n" + res.err,  // one diff per row
                  std::to_string(r.status) + "\n" + r.out + "stderr:\n" + r.err) << r.what;
    }
}
