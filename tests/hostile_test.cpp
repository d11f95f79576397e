// Installs by URL from a scripted HTTP server that misbehaves. Each ends in a
// correct install or in a refusal that wrote nothing.
#include <zlib.h>

#include <optional>

#include "support/servers.h"

namespace {

using servers::count;
using servers::response;
using servers::strings;

const servers::Release& rel()  // bodies of 4n bytes: no padding behind them
{
    static const servers::Release r({120000, 120000, 120000});
    return r;
}

std::string gzipped(std::string in)
{
    std::string out(in.size() + 1024, '\0');
    z_stream z{};
    deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);  // +16: gzip wrapper
    z.next_in = reinterpret_cast<Bytef*>(&in[0]);
    z.avail_in = uInt(in.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]);
    z.avail_out = uInt(out.size());
    deflate(&z, Z_FINISH);
    deflateEnd(&z);
    return out.substr(0, z.total_out);
}

// A 206 that claims to start at `claimed` and sends the image from `from`.
std::string partial(size_t claimed, size_t from)
{
    const std::string& img = rel().image;
    const std::string range = std::to_string(claimed) + "-" + std::to_string(img.size() - 1) + "/" +
                              std::to_string(img.size());
    return response("206 Partial Content\r\nContent-Range: bytes " + range, img.substr(from), img.size() - claimed);
}

// kor install <server URL> 1 <args> against the scripted server. World::install checks the status, the text in
// stderr, that no password was logged and that set 1's bodies were written, or on a refusal that nothing was.
class Hostile {
public:
    explicit Hostile(std::string name) : name(std::move(name)) {}
    Hostile& installed_first() { installed = true; return *this; }  // from the file, before the server starts
    Hostile& answers(strings a) { answers_ = std::move(a); return *this; }  // to each request; the last to any more
    Hostile& stalls_before_closing_ms(int ms) { stall_ms = ms; return *this; }
    Hostile& args(strings a) { args_ = std::move(a); return *this; }
    Hostile& status(int s) { status_ = s; return *this; }
    Hostile& stderr_has(std::string t) { error = std::move(t); return *this; }
    Hostile& requested_ranges(strings r) { ranges = std::move(r); return *this; }  // Range header of each request
    Hostile& skipped_bodies(size_t n) { skipped = n; return *this; }  // "SKIP" lines in stderr
    Hostile& written_bodies(size_t n) { written = n; return *this; }  // "Writing out" lines in stdout

    std::string name, error;
    bool installed = false;
    strings answers_, args_, ranges;
    int stall_ms = 0;
    std::optional<int> status_;
    size_t skipped = 0, written = 0;
};

TEST(HostileTest, ScriptedServers)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string& img = rel().image;
    const std::string ok = response("200 OK", img), parser = "velk_stream_parser failed", velksize = "-velksize=";
    const size_t at = rel().ends[0], size = img.size();
    const strings first_only = {"bytes=0-"}, then_resumed = {"bytes=0-", "bytes=" + std::to_string(at) + "-"};
    // The first request answered in full, so that body 0 is skipped; then `answer` to the resume behind it.
    const auto resumed = [](const std::string& answer) { return strings{partial(0, 0), answer}; };
    const std::string refused_redirect = "install: server answered with a redirect (302); redirects are not followed\n";
    const Hostile cases[] = {
        Hostile("302 to the resume").installed_first()
            .answers(resumed(response("302 Found\r\nLocation: /img.velk", "")))
            .status(16).stderr_has(refused_redirect).requested_ranges(then_resumed).skipped_bodies(1).written_bodies(0),
        Hostile("long header to the resume").installed_first()
            .answers(resumed(response("200 OK\r\nX: " + std::string(1200, 'x'), img)))
            .status(16).stderr_has("install: response header longer than").requested_ranges(then_resumed)
            .skipped_bodies(1).written_bodies(0),
        Hostile("long header").answers({response("200 OK\r\nX-Pad: " + std::string(1200, 'x'), img)})
            .status(16).stderr_has("curl returned: 23 == ").requested_ranges(first_only)
            .skipped_bodies(0).written_bodies(0),
        Hostile("resume answered: 206, whole image").installed_first().answers(resumed(partial(at, 0)))
            .status(16).stderr_has(parser).requested_ranges(then_resumed).skipped_bodies(1).written_bodies(0),
        Hostile("resume answered: 206, 4 bytes on").installed_first().answers(resumed(partial(at, at + 4)))
            .status(16).stderr_has(parser).requested_ranges(then_resumed).skipped_bodies(1).written_bodies(0),
        Hostile("resume answered: 200").installed_first().answers(resumed(ok))
            .status(0).stderr_has("install: server sent the whole image instead of the rest from byte " +
                                  std::to_string(at) + "; starting again from byte 0 without ranges\n")
            .requested_ranges(then_resumed).skipped_bodies(1).written_bodies(0),
        Hostile("server ignores Range").installed_first().answers({ok})
            .status(0).requested_ranges(first_only).skipped_bodies(0).written_bodies(0),
        Hostile("-rewrite").installed_first().answers({ok}).args({"-rewrite"})
            .status(0).requested_ranges({""}).skipped_bodies(0).written_bodies(3),
        Hostile("Content-Length short").answers({response("200 OK", img, size / 2)})
            .status(9).stderr_has("incomplete VELK").requested_ranges(first_only).skipped_bodies(0).written_bodies(0),
        Hostile("extra bytes announced").answers({response("200 OK", img + "junk")})
            .status(0).requested_ranges(first_only).skipped_bodies(0).written_bodies(3),
        Hostile("extra bytes not announced").answers({response("200 OK", img + "junk", size)})
            .status(0).requested_ranges(first_only).skipped_bodies(0).written_bodies(3),
        Hostile("one byte below -velksize").answers({ok}).args({velksize + std::to_string(size + 1)})
            .status(0).requested_ranges(first_only).skipped_bodies(0).written_bodies(3),
        Hostile("image of -velksize bytes").answers({ok}).args({velksize + std::to_string(size)})
            .status(16).stderr_has("Too much data received. Try increasing -velksize\n").requested_ranges(first_only)
            .skipped_bodies(0).written_bodies(0),
        Hostile("connection dropped").answers({response("200 OK", img, size, size / 2)})
            .status(16).stderr_has("curl returned: 18 == ").requested_ranges(first_only)
            .skipped_bodies(0).written_bodies(0),
        Hostile("stall in the body, then close").answers({response("200 OK", img, size, size / 2)})
            .stalls_before_closing_ms(2000)
            .status(16).stderr_has("curl returned: 18 == ").requested_ranges(first_only)
            .skipped_bodies(0).written_bodies(0),
        Hostile("404, even with a short page").answers({response("404 Not Found", "<html/>")})
            .status(16).stderr_has("curl returned: 22 == The requested URL returned error: 404")
            .requested_ranges(first_only).skipped_bodies(0).written_bodies(0),
        Hostile("gzip not asked for").answers({response("200 OK\r\nContent-Encoding: gzip", gzipped(img))})
            .status(16).stderr_has("velk_stream_parser_hdr failed").requested_ranges(first_only)
            .skipped_bodies(0).written_bodies(0),
    };
    for (const Hostile& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.status_) << "the case names no exit status";
        servers::World w(rel());
        if (c.installed) w.install(w.file);
        servers::Scripted server(c.answers_, c.stall_ms);
        const auto r = w.install(server.url("img.velk"), *c.status_, c.error, c.args_);
        EXPECT_EQ(server.ranges(), c.ranges);
        EXPECT_EQ(count(r.err, "SKIP"), c.skipped) << r.err;
        EXPECT_EQ(count(r.out, "Writing out"), c.written) << r.out;
    }
}

}  // namespace
