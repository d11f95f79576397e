#include <algorithm>
#include <memory>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"
#include "support/sandbox.h"

enum Cuts { one_piece, mid_header, byte_by_byte };  // pieces end behind "korm" so that it is planned early

// The stream receiver driven by hand as libcurl drives it. Part 2 (kernel, KNLS, no version) is planned onto the installed
// member: its body is not wanted; part 3 (root) is written. Other cuts, a full buffer, no range: transfer and hostile tests.
TEST(InstallReceive, PiecesSkipsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // the receiver's messages reach the sandbox's syslog, not the host's
    const struct { const char* name; Cuts cuts; const char* korm_first; int state; bool skipped; } cases[] = {
        {"one piece", one_piece, "", INSTALL_STATE_PARSING, false},  // "korm" and part 2's header together: too late to skip
        {"piece ends in part 2 header", mid_header, "", INSTALL_STATE_PARSING, true},
        {"byte by byte", byte_by_byte, "", INSTALL_STATE_PARSING, true},
        {"korm before release header", one_piece, "2,KNLS,0,-,-,-,1.0.1,1\n", INSTALL_STATE_FAILED, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<mkvelk::part> p = {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
            mkvelk::korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
            mkvelk::software("kernel", 1, 0, 1, "k1", mkvelk::bytes(1000, 0xAB)), mkvelk::software("root", 1, 0, 1, "r1", mkvelk::bytes(3001, 0xCD))};
        if (*c.korm_first) p.insert(p.begin(), mkvelk::korm(c.korm_first));
        const mkvelk::bytes img = mkvelk::build_image(p);
        const uint32_t body = uint32_t(std::search_n(img.begin(), img.end(), 1000, 0xAB) - img.begin()), end = body + 1000, n = uint32_t(img.size());
        std::vector<uint32_t> cuts = std::vector<std::vector<uint32_t>>{{n}, {body - 40, body - 10, body + 8, n}, {}}[c.cuts];
        for (uint32_t i = 1; c.cuts == byte_by_byte && i <= n; ++i) cuts.push_back(i);
        kor_options opts{};  // and the record with the default layout
        korl_data data{};
        static hostconfig hc;
        ASSERT_TRUE(hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && hostconfig_default(&hc) == 1 && korl_hostconfig_import(&data, &hc) == 1);
        korl_partpool_generate(&data);
        std::vector<uint8_t> buffer(img.size() + 1, 0);
        install_ctx ctx{};
        ctx.state = INSTALL_STATE_HEADER, ctx.data = &data, ctx.setidx = 1, ctx.options = &opts, ctx.curl = &hc, ctx.next_element = -1;
        ctx.buffer = buffer.data(), ctx.buffer_size = uint32_t(buffer.size()), ctx.range_mode = 1;
        const std::shared_ptr<velk_stream_parser> owner(ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer), velk_stream_parser_deinit);
        uint32_t pos = 0, fed = 0, skips = 0;  // after a skip the next piece starts at the range offset, as a resumed transfer does
        testing::internal::CaptureStderr();
        for (uint32_t cut : cuts) {
            if (cut <= pos) continue;
            const size_t len = cut - pos, r = install_receive(const_cast<uint8_t*>(img.data() + pos), 1, len, &ctx);
            if (fed += uint32_t(len); ctx.state == INSTALL_STATE_FAILED) break;
            const bool skip = r == len + 1 && ctx.state == INSTALL_STATE_SKIP;
            EXPECT_TRUE(r == len + skip && (!skip || (ctx.buffer_fill == end && ctx.range == std::to_string(end) + "-"))) << r << ctx.range;
            pos = skip ? ctx.buffer_fill : cut, skips += skip;
        }
        const bool reported = testing::internal::GetCapturedStderr().find("  0 should not be downloaded, SKIP\n") != std::string::npos;
        EXPECT_EQ(std::pair(ctx.state, reported), std::pair(c.state, c.skipped));
        if (c.state == INSTALL_STATE_FAILED) continue;
        const velk_content_header* const* parts = velk_stream_parser_content_parts(ctx.parser);
        EXPECT_EQ(std::make_tuple(velk_stream_parser_get_status(ctx.parser), ctx.received, skips, parts[2] == nullptr, parts[3] != nullptr,
                                  ctx.korm[0].action, ctx.korm[1].action, ctx.korm[1].partinfo_idx, buffer[end - 1]),  // a skipped body never arrives
                  std::make_tuple(3, fed, uint32_t(c.skipped), c.skipped, true, 2u, 1u, 13, uint8_t(c.skipped ? 0 : 0xAB)));
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + body, buffer.begin()) && std::equal(img.begin() + end, img.end(), buffer.begin() + end));
    }
}
