// The velkinfo action as the user sees it: stdout, stderr and exit status of the real kor binary, byte for byte.
#include "mkvelk.h"
#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using mkvelk::bytes;

// kor velkinfo on an image file (or on one that is not there), then the row's arguments.
class Report : public cli::Builder<Report> {
public:
    explicit Report(const std::string& name) : Builder(name) { arg("velkinfo"); }
    Report& image(const bytes& b) { return file(path(), std::string(b.begin(), b.end())).arg(path()); }
    Report& missing_image() { return arg(path()); }

private:
    std::string path() const { return sandbox::workdir() + "/" + name + ".velk"; }
};

TEST(Velkinfo, ReportsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    const auto block = [](const std::string& part, int valid, const std::string& fields = "") {
        return std::string(55, '-') + "\nContent Part: " + part + "\nvalid...................: " +
               std::to_string(valid) + "\ncovered_by_signature....: 0\nvalidated_by_signature..: 0\n" + fields;
    };
    const auto release = [&](int valid) {
        return block("0, type 1, name release", valid,
                     "release_version_major..: 1\nrelease_version_minor..: 2\nrelease_build_number...: 345\n"
                     "release_date...........: 1700000000\nrelease_build_id.......: build-77\n");
    };
    const auto software = [&](int valid) {
        return block("1, type 4, name rootfs", valid,
                     "sw_version_major..: 3\nsw_version_minor..: 4\nsw_build_number...: 567\n"
                     "sw_build_id.......: sw-9\n");
    };
    const auto image = [](size_t release_body) {  // software body at 160, data part: the last 12 bytes
        return mkvelk::build_image(
            {mkvelk::release_header(1, 2, 345, 1700000000, "build-77", std::string(release_body - 1, 'x')),
             mkvelk::software("rootfs", 3, 4, 567, "sw-9", bytes(100, 0x11)), mkvelk::data("blob", bytes(10, 0x22))});
    };
    const bytes img = image(14);
    bytes bad_software_body = img, truncated = img;
    bad_software_body[160] ^= 1;
    truncated.resize(truncated.size() - 4);
    const std::string size = std::to_string(img.size()), below = std::to_string(img.size() - 1);
    const Report rows[] = {
        Report("header only").image(img).status(0).stdout_is(release(1)).stderr_is(""),
        Report("all parts").image(img).args("-all").status(0)
            .stdout_is(release(1) + software(1) + block("2, type 3, name blob", 1)).stderr_is(""),
        Report("bad software body, -allparts").image(bad_software_body).args("-allparts").status(0)
            .stdout_is(release(1) + software(-1)).stderr_is(""),
        Report("truncated, -all").image(truncated).args("-all").status(0)
            .stdout_is(release(1) + software(1)).stderr_is(""),
        Report("release header beyond 1024").image(image(2000)).status(0)
            .stdout_is(std::string(55, '-') + "\nWARNING: CONTENT HEADER IS NULL? Skipping.\n").stderr_is(""),
        Report("24 bytes, -all").image(mkvelk::build_image({})).args("-all").status(9).stdout_is("")
            .stderr_is("velkinfo: no header\nvelkinfo: loading VELK failed.\n"),
        Report("missing").missing_image().status(8).stdout_is("").stderr_is("velkinfo: could not open VELK\n"),
        Report("no path").status(1).stdout_is("").stderr_is("velkinfo: VELK is missing.\n"),
        Report("empty").image({}).status(9).stdout_is("").stderr_is("velkinfo: empty VELK\n"),
        Report("above -velksize").image(img).args("-velksize=" + below + " -all").status(9).stdout_is("")
            .stderr_is("velkinfo: VELK too big\n"),
        Report("exactly -velksize").image(img).args("-velksize=" + size).status(0).stdout_is(release(1))
            .stderr_is(""),
    };
    sandbox::Device d;
    for (const Report& row : rows) cli::run(row, d);
}

}  // namespace
