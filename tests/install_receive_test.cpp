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
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_default(&hc), 1);
    const struct {
        const char* what;
        bool byte_by_byte;  // else in one piece: "korm" and part 2's header arrive together, too late to skip
        bool korm_first;    // a "korm" before the release header: refused
    } feeds[] = {
        {"one piece", false, false},
        {"byte by byte", true, false},
        {"korm before the release header", false, true},
    };
    for (const auto& feed : feeds) {
        SCOPED_TRACE(feed.what);
        std::vector<part> p = {release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
                               korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
                               software("kernel", 1, 0, 1, "k1", bytes(1000, 0xAB)),
                               software("root", 1, 0, 1, "r1", bytes(3001, 0xCD))};
        if (feed.korm_first) p.insert(p.begin(), p[1]);
        bytes img = build_image(p);
        const size_t body = size_t(std::search_n(img.begin(), img.end(), 1000, 0xAB) - img.begin()), end = body + 1000;
        korl_data data{};
        ASSERT_EQ(korl_hostconfig_import(&data, &hc), 1);
        korl_partpool_generate(&data);
        bytes buffer(img.size() + 1, 0);
        install_ctx ctx{};
        ctx.state = INSTALL_STATE_HEADER;
        ctx.data = &data;
        ctx.options = &opts;
        ctx.curl = &hc;
        ctx.next_element = -1;
        ctx.buffer = buffer.data();
        ctx.buffer_size = uint32_t(buffer.size());
        ctx.range_mode = 1;
        ctx.setidx = 1;
        const std::shared_ptr<velk_stream_parser> owner(ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer),
                                                        velk_stream_parser_deinit);
        testing::internal::CaptureStderr();
        size_t pos = 0;
        while (pos < img.size() && ctx.state != INSTALL_STATE_FAILED) {
            const size_t len = feed.byte_by_byte ? 1 : img.size() - pos;
            const size_t r = install_receive(&img[pos], 1, len, &ctx);
            const bool skip = r == len + 1 && ctx.state == INSTALL_STATE_SKIP;  // the body behind is left out
            if (!feed.korm_first) {
                EXPECT_EQ(r, skip ? len + 1 : len);
                if (skip) {
                    EXPECT_EQ(ctx.range, std::to_string(end) + "-");
                }
            }
            pos = skip ? ctx.buffer_fill : pos + len;  // after a skip the next piece starts at the range offset
        }
        const std::string err = testing::internal::GetCapturedStderr();
        const auto said = [&err](const char* text) { return err.find(text) != std::string::npos; };
        EXPECT_EQ(ctx.state, feed.korm_first ? INSTALL_STATE_FAILED : INSTALL_STATE_PARSING);
        EXPECT_EQ(said("KORM before RH"), feed.korm_first);
        EXPECT_EQ(said("0 should not be downloaded"), feed.byte_by_byte);
        if (feed.korm_first) continue;
        const velk_content_header* const* parts = velk_stream_parser_content_parts(ctx.parser);
        EXPECT_EQ(velk_stream_parser_get_status(ctx.parser), 3);
        EXPECT_EQ(ctx.received, img.size() - (feed.byte_by_byte ? 1000 : 0));
        EXPECT_EQ(parts[2] == nullptr, feed.byte_by_byte);
        EXPECT_NE(parts[3], nullptr);
        EXPECT_EQ(ctx.korm[0].action, 2u);  // part 2 is reused
        EXPECT_EQ(buffer[end - 1], feed.byte_by_byte ? 0 : 0xAB);
        // A skipped body never arrives; everything else is where the image has it.
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + long(body), buffer.begin()));
        EXPECT_TRUE(std::equal(img.begin() + long(end), img.end(), buffer.begin() + long(end)));
    }
}
