// The stream receiver driven by hand as libcurl drives it: pieces, skips in range mode, refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"
#include "support/sandbox.h"

namespace {

using mkvelk::bytes;

// Part 2 (kernel) goes to KNLS with no version: planned onto the installed member (action 2),
// its body is not wanted. Part 3 (root) is written. `korm_first`: a "korm" before the header.
bytes image(const std::string& korm_first)
{
    std::vector<mkvelk::part> p = {
        mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
        mkvelk::korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
        mkvelk::software("kernel", 1, 0, 1, "k1", bytes(1000, 0xAB)),
        mkvelk::software("root", 1, 0, 1, "r1", bytes(3001, 0xCD))};
    if (!korm_first.empty()) p.insert(p.begin(), mkvelk::korm(korm_first));
    return mkvelk::build_image(p);
}

enum Cuts { one_piece, header_end, mid_header, byte_by_byte, first_23 };

// Pieces end behind "korm" first, so that it is planned early; extra_buffer is buffer_size minus
// the image size; state is the receiver's at the end; skipped: part 2's body left out.
const struct Case { const char* name; Cuts cuts; int extra_buffer, range_mode; std::string korm_first; int state;
                    bool skipped; } cases[] = {
    // "korm" and part 2's header in one piece: planned too late to skip.
    {"one piece", one_piece, 1, 1, "", INSTALL_STATE_PARSING, false},
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const bytes img = image(c.korm_first);
        // Part 2's header is 40 bytes (36 and "k1"), right before its body.
        const uint32_t header_end = uint32_t(std::search_n(img.begin(), img.end(), 1000, 0xAB) - img.begin()),
                       start = header_end - 40, body_end = header_end + 1000;
        const std::vector<uint32_t> by_kind[] = {
            {}, {start, header_end}, {start, header_end - 10, header_end + 8}, {}, {23}};
        std::vector<uint32_t> cuts = by_kind[c.cuts];
        for (uint32_t i = 1; c.cuts == byte_by_byte && i < img.size(); ++i) cuts.push_back(i);
        cuts.push_back(uint32_t(img.size()));

        kor_options opts{};  // and the record with the default layout
        korl_data data{};
        hostconfig hc{};
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX) + hostconfig_default(&hc) + korl_hostconfig_import(&data, &hc), 3);
        korl_partpool_generate(&data);
        std::vector<uint8_t> buffer(img.size() + c.extra_buffer, 0);
        install_ctx ctx{};
        ctx.state = INSTALL_STATE_HEADER, ctx.data = &data, ctx.setidx = 1, ctx.options = &opts, ctx.curl = &hc;
        ctx.buffer = buffer.data(), ctx.buffer_size = uint32_t(buffer.size()), ctx.next_element = -1;
        ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer), ctx.range_mode = c.range_mode;
        std::unique_ptr<velk_stream_parser, void (*)(velk_stream_parser*)> p(ctx.parser, velk_stream_parser_deinit);

        // After a skip the next piece starts at the range offset, as a resumed transfer does.
        uint32_t pos = 0, fed = 0, skips = 0;
        testing::internal::CaptureStderr();
        for (uint32_t cut : cuts) {
            if (cut <= pos) continue;
            size_t n = cut - pos, r = install_receive(const_cast<uint8_t*>(img.data() + pos), 1, n, &ctx);
            fed += uint32_t(n);
            if (ctx.state == INSTALL_STATE_FAILED) break;
            const bool skip = r == n + 1 && ctx.state == INSTALL_STATE_SKIP;
            EXPECT_EQ(r, n + skip);
            EXPECT_TRUE(!skip || (ctx.buffer_fill == body_end && ctx.range == std::to_string(body_end) + "-")) << ctx.range;
            pos = skip ? ctx.buffer_fill : cut, skips += skip;
        }
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::make_tuple(ctx.state, err.find("  0 should not be downloaded, SKIP\n") != std::string::npos),
                  std::make_tuple(c.state, c.skipped)) << err;
        if (c.state == INSTALL_STATE_FAILED) continue;
        const velk_content_header* const* parts = velk_stream_parser_content_parts(ctx.parser);
        EXPECT_EQ(std::make_tuple(velk_stream_parser_get_status(ctx.parser), ctx.received, skips, parts[2] == nullptr),
                  std::make_tuple(3, fed, uint32_t(c.skipped), c.skipped));
        EXPECT_NE(parts[3], nullptr);
        EXPECT_EQ(std::make_tuple(ctx.korm[0].action, ctx.korm[1].action, ctx.korm[1].partinfo_idx),
                  std::make_tuple(2u, 1u, 13));
        // Everything but the skipped body is at its offset; that body's end never arrived.
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + header_end, buffer.begin()));
        EXPECT_TRUE(std::equal(img.begin() + body_end, img.end(), buffer.begin() + body_end));
        EXPECT_EQ(buffer[body_end - 1], c.skipped ? 0 : 0xAB);
    }
}

}  // namespace
