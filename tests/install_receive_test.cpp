#include <algorithm>
#include <memory>

#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"
#include "support/sandbox.h"

using namespace mkvelk;

// The receiver driven by hand as libcurl drives it. Part 2 (kernel, KNLS, no version) is planned onto the installed
// member: its body is not wanted; part 3 (root) is written. Other cuts, a full buffer: transfer and hostile tests.
TEST(InstallReceive, PiecesSkipsAndRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // the receiver's messages reach the sandbox's syslog, not the host's
    kor_options opts{};
    static hostconfig hc;  // the default layout
    ASSERT_TRUE(hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && hostconfig_default(&hc) == 1);
    for (const std::string row : {"one piece", "byte by byte", "korm before the release header"}) {
        SCOPED_TRACE(row);  // in one piece "korm" and part 2's header arrive together: too late to skip
        const bool bytewise = row[0] == 'b', refused = row[0] == 'k';
        std::vector<part> p = {release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
            korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
            software("kernel", 1, 0, 1, "k1", bytes(1000, 0xAB)), software("root", 1, 0, 1, "r1", bytes(3001, 0xCD))};
        if (refused) p.insert(p.begin(), p[1]);
        bytes img = build_image(p);
        const size_t body = std::search_n(img.begin(), img.end(), 1000, 0xAB) - img.begin(), end = body + 1000;
        korl_data data{};
        ASSERT_EQ(korl_hostconfig_import(&data, &hc), 1);
        korl_partpool_generate(&data);
        bytes buffer(img.size() + 1, 0);
        install_ctx ctx{};
        ctx.state = INSTALL_STATE_HEADER, ctx.data = &data, ctx.options = &opts, ctx.curl = &hc, ctx.next_element = -1;
        ctx.buffer = buffer.data(), ctx.buffer_size = uint32_t(buffer.size()), ctx.range_mode = 1, ctx.setidx = 1;
        const std::shared_ptr<velk_stream_parser> owner(ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer),
                                                        velk_stream_parser_deinit);
        testing::internal::CaptureStderr();  // after a skip the next piece starts at the range offset
        for (size_t pos = 0; pos < img.size() && ctx.state != INSTALL_STATE_FAILED;) {
            const size_t len = bytewise ? 1 : img.size() - pos, r = install_receive(&img[pos], 1, len, &ctx);
            const bool skip = r == len + 1 && ctx.state == INSTALL_STATE_SKIP;
            EXPECT_TRUE(refused || (r == len + skip && (!skip || ctx.range == std::to_string(end) + "-"))) << ctx.range;
            pos = skip ? ctx.buffer_fill : pos + len;
        }
        const auto has = [e = testing::internal::GetCapturedStderr()](auto t) { return e.find(t) != e.npos; };
        EXPECT_EQ(std::tuple(ctx.state, has("KORM before RH"), has("0 should not be downloaded")),
                  std::tuple(refused ? INSTALL_STATE_FAILED : INSTALL_STATE_PARSING, refused, bytewise));
        if (refused) continue;
        const velk_content_header* const* parts = velk_stream_parser_content_parts(ctx.parser);
        EXPECT_EQ(std::tuple(velk_stream_parser_get_status(ctx.parser), ctx.received, parts[2] == nullptr,
                             parts[3] != nullptr, ctx.korm[0].action, buffer[end - 1]),  // part 2 is reused
                  std::tuple(3, img.size() - (bytewise ? 1000 : 0), bytewise, true, 2u, uint8_t(bytewise ? 0 : 0xAB)));
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + body, buffer.begin()) &&
                    std::equal(img.begin() + end, img.end(), buffer.begin() + end));  // a skipped body never arrives
    }
}
