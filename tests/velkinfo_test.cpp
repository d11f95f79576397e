// The velkinfo action as the user sees it: stdout, stderr and exit status of the real kor binary, byte for byte.
#include <optional>

#include "mkvelk.h"
#include "support/sandbox.h"

using mkvelk::bytes;

TEST(Velkinfo, ReportsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    const auto block = [](const std::string& part, int valid, const std::string& fields = "") {
        return std::string(55, '-') + "\nContent Part: " + part + "\nvalid...................: " + std::to_string(valid) +
               "\ncovered_by_signature....: 0\nvalidated_by_signature..: 0\n" + fields; };
    const auto release = [&](int valid) { return block("0, type 1, name release", valid, "release_version_major..: 1\n"
        "release_version_minor..: 2\nrelease_build_number...: 345\nrelease_date...........: 1700000000\nrelease_build_id.......: build-77\n"); };
    const auto software = [&](int valid) { return block("1, type 4, name rootfs", valid,
        "sw_version_major..: 3\nsw_version_minor..: 4\nsw_build_number...: 567\nsw_build_id.......: sw-9\n"); };
    const auto image = [](size_t release_body) {  // software body at 160, data part: the last 12 bytes
        return mkvelk::build_image({mkvelk::release_header(1, 2, 345, 1700000000, "build-77", std::string(release_body - 1, 'x')),
            mkvelk::software("rootfs", 3, 4, 567, "sw-9", bytes(100, 0x11)), mkvelk::data("blob", bytes(10, 0x22))}); };
    const auto changed = [](bytes b, size_t at, size_t cut) { return b[at] ^= uint8_t(!cut), b.resize(b.size() - cut), b; };
    const bytes img = image(14);
    // The file (none: missing), args after the action word with "$F" standing for the file's path.
    const struct { const char* what; std::optional<bytes> file; std::vector<std::string> args; int status; std::string out, err; } rows[] = {
        {"header only", img, {"$F"}, 0, release(1), ""},
        {"all parts", img, {"$F", "-all"}, 0, release(1) + software(1) + block("2, type 3, name blob", 1), ""},
        {"bad software body, -allparts", changed(img, 160, 0), {"$F", "-allparts"}, 0, release(1) + software(-1), ""},
        {"truncated, -all", changed(img, 0, 4), {"$F", "-all"}, 0, release(1) + software(1), ""},
        {"release header beyond 1024", image(2000), {"$F"}, 0, std::string(55, '-') + "\nWARNING: CONTENT HEADER IS NULL? Skipping.\n", ""},
        {"24 bytes, -all", mkvelk::build_image({}), {"$F", "-all"}, 9, "", "velkinfo: no header\nvelkinfo: loading VELK failed.\n"},
        {"missing", std::nullopt, {"$F"}, 8, "", "velkinfo: could not open VELK\n"},
        {"no path", std::nullopt, {}, 1, "", "velkinfo: VELK is missing.\n"},
        {"empty", bytes{}, {"$F"}, 9, "", "velkinfo: empty VELK\n"},
        {"above -velksize", img, {"$F", "-velksize=" + std::to_string(img.size() - 1), "-all"}, 9, "", "velkinfo: VELK too big\n"},
        {"exactly -velksize", img, {"$F", "-velksize=" + std::to_string(img.size())}, 0, release(1), ""},
    };
    sandbox::Device d;
    for (const auto& r : rows) {
        const std::string path = d.workdir() + "/" + r.what + ".velk";
        if (r.file) d.write_file(path, std::string(r.file->begin(), r.file->end()));
        std::vector<std::string> args = {"velkinfo"};
        for (const std::string& a : r.args) args.push_back(a == "$F" ? path : a);
        const sandbox::RunResult res = d.kor(args);
        EXPECT_EQ(std::tie(res.status, res.out, res.err), std::tie(r.status, r.out, r.err)) << r.what;
    }
}
