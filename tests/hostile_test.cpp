// Installs by URL from a scripted HTTP server that misbehaves. Each ends in a
// correct install or in a refusal that wrote nothing.
#include <zlib.h>

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
    z.next_in = reinterpret_cast<Bytef*>(&in[0]), z.avail_in = uInt(in.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]), z.avail_out = uInt(out.size());
    return deflate(&z, Z_FINISH), deflateEnd(&z), out.substr(0, z.total_out);
}

// A 206 that claims to start at `claimed` and sends the image from `from`.
std::string partial(size_t claimed, size_t from)
{
    const std::string& img = rel().image;
    const std::string range = std::to_string(claimed) + "-" + std::to_string(img.size() - 1) + "/" + std::to_string(img.size());
    return response("206 Partial Content\r\nContent-Range: bytes " + range, img.substr(from), img.size() - claimed);
}

TEST(HostileTest, ScriptedServers)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string& img = rel().image;
    const std::string ok = response("200 OK", img), parser = "velk_stream_parser failed", velksize = "-velksize=";
    const size_t at = rel().ends[0], size = img.size();
    const strings r1 = {"bytes=0-"}, r2 = {"bytes=0-", "bytes=" + std::to_string(at) + "-"};
    const auto again = [](const std::string& answer) { return strings{partial(0, 0), answer}; };  // resume behind body 0
    // Installed from the file first?, the answer to each request, args, how long the server stalls before it
    // closes, kor's status, text in stderr, the Range header of each request, "SKIP/Writing out" line counts.
    const struct { const char* name; bool installed; strings answers, args; int stall_ms, status; std::string error;
        strings ranges; std::string counts; } cases[] = {
        {"302 to the resume", true, again(response("302 Found\r\nLocation: /img.velk", "")), {}, 0, 16,
         "install: server answered with a redirect (302); redirects are not followed\n", r2, "1/0"},
        {"long header to the resume", true, again(response("200 OK\r\nX: " + std::string(1200, 'x'), img)), {}, 0, 16,
         "install: response header longer than", r2, "1/0"},
        {"long header", false, {response("200 OK\r\nX-Pad: " + std::string(1200, 'x'), img)}, {}, 0, 16,
         "curl returned: 23 == ", r1, "0/0"},
        {"resume answered: 206, whole image", true, again(partial(at, 0)), {}, 0, 16, parser, r2, "1/0"},
        {"resume answered: 206, 4 bytes on", true, again(partial(at, at + 4)), {}, 0, 16, parser, r2, "1/0"},
        {"resume answered: 200", true, again(ok), {}, 0, 16, parser, r2, "1/0"},
        {"server ignores Range", true, {ok}, {}, 0, 0, "", r1, "0/0"},
        {"-rewrite", true, {ok}, {"-rewrite"}, 0, 0, "", {""}, "0/3"},
        {"Content-Length short", false, {response("200 OK", img, size / 2)}, {}, 0, 9, "incomplete VELK", r1, "0/0"},
        {"extra bytes announced", false, {response("200 OK", img + "junk")}, {}, 0, 0, "", r1, "0/3"},
        {"extra bytes not announced", false, {response("200 OK", img + "junk", size)}, {}, 0, 0, "", r1, "0/3"},
        {"one byte below -velksize", false, {ok}, {velksize + std::to_string(size + 1)}, 0, 0, "", r1, "0/3"},
        {"image of -velksize bytes", false, {ok}, {velksize + std::to_string(size)}, 0, 16,
         "Too much data received. Try increasing -velksize\n", r1, "0/0"},
        {"connection dropped", false, {response("200 OK", img, size, size / 2)}, {}, 0, 16, "curl returned: 18 == ", r1, "0/0"},
        {"stall in the body, then close", false, {response("200 OK", img, size, size / 2)}, {}, 2000, 16,
         "curl returned: 18 == ", r1, "0/0"},
        {"404, even with a short page", false, {response("404 Not Found", "<html/>")}, {}, 0, 16,
         "curl returned: 22 == The requested URL returned error: 404", r1, "0/0"},
        {"gzip not asked for", false, {response("200 OK\r\nContent-Encoding: gzip", gzipped(img))}, {}, 0, 16,
         "velk_stream_parser_hdr failed", r1, "0/0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        servers::World w(rel());
        if (c.installed) w.install(w.file);
        servers::Scripted server(c.answers, c.stall_ms);
        auto r = w.install(server.url("img.velk"), c.status, c.error, c.args);
        EXPECT_EQ(server.ranges(), c.ranges);
        EXPECT_EQ(std::to_string(count(r.err, "SKIP")) + "/" + std::to_string(count(r.out, "Writing out")), c.counts);
    }
}

}  // namespace
