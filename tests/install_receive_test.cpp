// The stream receiver driven by hand as libcurl drives it: pieces, skips in range mode, refusals.
#include <algorithm>
#include <memory>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"
#include "support/sandbox.h"

// Part 2 (kernel, KNLS, no version) is planned onto the installed member (action 2): its body is not
// wanted; part 3 (root) is written. Pieces end at the cuts (by_kind below), behind "korm" so that it is
// planned early; extra_buffer: buffer size minus image size; korm_first: a "korm" before the release header.
enum Cuts { one_piece, header_end, mid_header, byte_by_byte, first_23 };
static const struct { const char* name; Cuts cuts; int extra_buffer, range_mode; const char* korm_first; int state; bool skipped; } cases[] = {
    {"one piece", one_piece, 1, 1, "", INSTALL_STATE_PARSING, false},  // "korm" and part 2's header together: too late to skip
    {"piece ends with part 2 header", header_end, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"piece ends in part 2 header", mid_header, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"byte by byte", byte_by_byte, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"first piece below 24 bytes", first_23, 1, 1, "", INSTALL_STATE_PARSING, false},
    {"range mode off", header_end, 1, 0, "", INSTALL_STATE_PARSING, false},
    {"image fills the buffer", one_piece, 0, 1, "", INSTALL_STATE_FAILED, false},
    {"korm before release header", one_piece, 1, 1, "2,KNLS,0,-,-,-,1.0.1,1\n", INSTALL_STATE_FAILED, false},
};

TEST(InstallReceive, PiecesSkipsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // the receiver's messages reach the sandbox's syslog, not the host's
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<mkvelk::part> p = {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
            mkvelk::korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
            mkvelk::software("kernel", 1, 0, 1, "k1", mkvelk::bytes(1000, 0xAB)),
            mkvelk::software("root", 1, 0, 1, "r1", mkvelk::bytes(3001, 0xCD))};
        if (*c.korm_first) p.insert(p.begin(), mkvelk::korm(c.korm_first));
        const mkvelk::bytes img = mkvelk::build_image(p);
        const uint32_t body = uint32_t(std::search_n(img.begin(), img.end(), 1000, 0xAB) - img.begin()), start = body - 40, end = body + 1000;
        const std::vector<uint32_t> by_kind[] = {{}, {start, body}, {start, body - 10, body + 8}, {}, {23}};  // part 2's header: 40 bytes
        std::vector<uint32_t> cuts = by_kind[c.cuts];
        for (uint32_t i = 1; c.cuts == byte_by_byte && i < img.size(); ++i) cuts.push_back(i);
        cuts.push_back(uint32_t(img.size()));

        kor_options opts{};  // and the record with the default layout
        korl_data data{};
        static hostconfig hc;
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX) + hostconfig_default(&hc) + korl_hostconfig_import(&data, &hc), 3);
        korl_partpool_generate(&data);
        std::vector<uint8_t> buffer(img.size() + c.extra_buffer, 0);
        install_ctx ctx{};
        ctx.state = INSTALL_STATE_HEADER, ctx.data = &data, ctx.setidx = 1, ctx.options = &opts, ctx.curl = &hc, ctx.next_element = -1;
        ctx.buffer = buffer.data(), ctx.buffer_size = uint32_t(buffer.size()), ctx.range_mode = c.range_mode;
        std::unique_ptr<velk_stream_parser, void (*)(velk_stream_parser*)> parser(ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer),
                                                                                   velk_stream_parser_deinit);
        uint32_t pos = 0, fed = 0, skips = 0;  // after a skip the next piece starts at the range offset, as a resumed transfer does
        testing::internal::CaptureStderr();
        for (uint32_t cut : cuts) {
            if (cut <= pos) continue;
            const size_t n = cut - pos, r = install_receive(const_cast<uint8_t*>(img.data() + pos), 1, n, &ctx);
            fed += uint32_t(n);
            if (ctx.state == INSTALL_STATE_FAILED) break;
            const bool skip = r == n + 1 && ctx.state == INSTALL_STATE_SKIP;
            EXPECT_TRUE(r == n + skip && (!skip || (ctx.buffer_fill == end && ctx.range == std::to_string(end) + "-"))) << r << ctx.range;
            pos = skip ? ctx.buffer_fill : cut, skips += skip;
        }
        const std::string err = testing::internal::GetCapturedStderr();
        const bool skip_reported = err.find("  0 should not be downloaded, SKIP\n") != std::string::npos;
        EXPECT_EQ(std::pair(ctx.state, skip_reported), std::pair(c.state, c.skipped)) << err;
        if (c.state == INSTALL_STATE_FAILED) continue;
        const velk_content_header* const* parts = velk_stream_parser_content_parts(ctx.parser);
        EXPECT_EQ(std::make_tuple(velk_stream_parser_get_status(ctx.parser), ctx.received, skips, parts[2] == nullptr, parts[3] != nullptr,
                                  ctx.korm[0].action, ctx.korm[1].action, ctx.korm[1].partinfo_idx),
                  std::make_tuple(3, fed, uint32_t(c.skipped), c.skipped, true, 2u, 1u, 13));
        // Everything but the skipped body is at its offset; that body's end never arrived.
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + body, buffer.begin()));
        EXPECT_TRUE(std::equal(img.begin() + end, img.end(), buffer.begin() + end));
        EXPECT_EQ(buffer[end - 1], c.skipped ? 0 : 0xAB);
    }
}
