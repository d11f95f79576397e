// The stream receiver driven by hand, the way libcurl drives it: pieces of
// any size, the skip of unwanted bodies in range mode and the resume behind
// them, and the refusals that end a transfer.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"

namespace {

using mkvelk::bytes;

// Part 2 goes to KNLS with no version given, which plans it onto the
// installed member (action 2): its body is not wanted. Part 3 is written.
std::vector<mkvelk::part> image_parts(const std::string& korm_first = "")
{
    std::vector<mkvelk::part> p;
    if (!korm_first.empty()) p.push_back(mkvelk::korm(korm_first));
    p.push_back(mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"));
    p.push_back(mkvelk::korm("2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"));
    p.push_back(mkvelk::software("kernel", 1, 0, 1, "k1", bytes(1000, 0xAB)));
    p.push_back(mkvelk::software("root", 1, 0, 1, "r1", bytes(3001, 0xCD)));
    return p;
}

// Where part 2 starts, where its header ends and where its body ends.
struct bounds {
    uint32_t start, header_end, body_end;
};
bounds part2_bounds(const bytes& img)
{
    bounds b{0, 0, 24};
    for (int k = 0; k < 3; ++k) {
        b.start = b.body_end;
        const auto* h = reinterpret_cast<const velk_content_header*>(img.data() + b.start);
        b.header_end = b.start + h->hdr_length;
        b.body_end = b.header_end + velk_pad4(h->body_length);
    }
    return b;
}

struct Receiver {
    kor_options opts{};
    korl_data data{};
    install_ctx ctx{};
    std::vector<uint8_t> buffer;
    int dummy_curl = 0;
    uint32_t fed = 0;  // bytes handed to the receiver

    explicit Receiver(uint32_t size)
        : buffer(size, 0)
    {
        hostconfig hc{};
        EXPECT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
        EXPECT_EQ(hostconfig_default(&hc), 1);
        EXPECT_EQ(korl_hostconfig_import(&data, &hc), 1);
        korl_partpool_generate(&data);
        ctx.state = INSTALL_STATE_HEADER;
        ctx.data = &data;
        ctx.setidx = 1;
        ctx.options = &opts;
        ctx.buffer = buffer.data();
        ctx.buffer_size = size;
        ctx.parser = velk_stream_parser_init(nullptr, ctx.buffer);
        ctx.curl = &dummy_curl;
        ctx.next_element = -1;
    }
    ~Receiver() { velk_stream_parser_deinit(ctx.parser); }

    // Feeds the image in pieces ending at the given offsets (and its end);
    // after a skip the next piece starts at the range offset, as a
    // resumed transfer does. Returns the offsets at which skips happened.
    std::vector<uint32_t> feed(const bytes& img, std::vector<uint32_t> cuts)
    {
        cuts.push_back(static_cast<uint32_t>(img.size()));
        std::vector<uint32_t> skips;
        uint32_t pos = 0;
        for (uint32_t cut : cuts) {
            if (cut <= pos) continue;
            size_t n = cut - pos;
            size_t r = install_receive(const_cast<uint8_t*>(img.data() + pos), 1, n, &ctx);
            fed += static_cast<uint32_t>(n);
            if (ctx.state == INSTALL_STATE_FAILED) return skips;
            if (r == n + 1 && ctx.state == INSTALL_STATE_SKIP) {
                EXPECT_EQ(ctx.range, std::to_string(ctx.buffer_fill) + "-");
                skips.push_back(ctx.buffer_fill);
                pos = ctx.buffer_fill;
                continue;
            }
            EXPECT_EQ(r, n);
            pos = cut;
        }
        return skips;
    }
};

enum class cuts_at { one_piece, header_end, mid_header, byte_by_byte, first_23 };

struct ReceiveCase {
    const char* name;
    cuts_at cuts;
    int extra_buffer;       // buffer_size minus image size
    int range_mode;
    std::string korm_first; // a korm part in front of the release header
    int state;              // expected receiver state at the end
    bool skipped;           // part 2's body left out
};

const ReceiveCase receive_cases[] = {
    // "korm" and part 2's header in one piece: planned too late to skip.
    {"one piece", cuts_at::one_piece, 1, 1, "", INSTALL_STATE_PARSING, false},
    {"piece ends with part 2 header", cuts_at::header_end, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"piece ends in part 2 header", cuts_at::mid_header, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"byte by byte", cuts_at::byte_by_byte, 1, 1, "", INSTALL_STATE_PARSING, true},
    {"first piece below 24 bytes", cuts_at::first_23, 1, 1, "", INSTALL_STATE_PARSING, false},
    {"range mode off", cuts_at::header_end, 1, 0, "", INSTALL_STATE_PARSING, false},
    {"image fills the buffer", cuts_at::one_piece, 0, 1, "", INSTALL_STATE_FAILED, false},
    {"korm before the release header", cuts_at::one_piece, 1, 1, "2,KNLS,0,-,-,-,1.0.1,1\n",
     INSTALL_STATE_FAILED, false},
};

std::vector<uint32_t> make_cuts(cuts_at c, const bytes& img)
{
    // Pieces end behind the "korm" part first, so that it is planned early.
    auto [start, header_end, body_end] = part2_bounds(img);
    std::vector<uint32_t> v;
    switch (c) {
    case cuts_at::one_piece: return v;
    case cuts_at::header_end: v = {start, header_end}; break;
    case cuts_at::mid_header: v = {start, header_end - 10, header_end + 8}; break;
    case cuts_at::first_23: v = {23}; break;
    case cuts_at::byte_by_byte:
        for (uint32_t i = 1; i < img.size(); ++i) v.push_back(i);
        break;
    }
    return v;
}

TEST(InstallReceive, PiecesSkipsAndRefusals)
{
    for (const ReceiveCase& c : receive_cases) {
        SCOPED_TRACE(c.name);
        bytes img = mkvelk::build_image(image_parts(c.korm_first));
        Receiver rx(static_cast<uint32_t>(img.size()) + c.extra_buffer);
        rx.ctx.range_mode = c.range_mode;
        std::vector<uint32_t> skips = rx.feed(img, make_cuts(c.cuts, img));
        EXPECT_EQ(rx.ctx.state, c.state);
        if (c.state == INSTALL_STATE_FAILED) continue;
        auto [start, header_end, body_end] = part2_bounds(img);
        EXPECT_EQ(velk_stream_parser_get_status(rx.ctx.parser), 3);
        EXPECT_EQ(rx.ctx.received, rx.fed);
        EXPECT_EQ(rx.fed < img.size(), c.skipped);
        const velk_content_header* const* parts = velk_stream_parser_content_parts(rx.ctx.parser);
        EXPECT_EQ(parts[2] == nullptr, c.skipped);
        EXPECT_NE(parts[3], nullptr);
        EXPECT_EQ(skips, c.skipped ? std::vector<uint32_t>{body_end} : std::vector<uint32_t>{});
        EXPECT_EQ(rx.ctx.korm[0].action, 2u);
        EXPECT_EQ(rx.ctx.korm[1].action, 1u);
        EXPECT_EQ(rx.ctx.korm[1].partinfo_idx, 13);
        // Everything but the skipped body is at its offset; that body's end
        // never arrived.
        EXPECT_TRUE(std::equal(img.begin(), img.begin() + header_end, rx.buffer.begin()));
        EXPECT_TRUE(std::equal(img.begin() + body_end, img.end(), rx.buffer.begin() + body_end));
        EXPECT_EQ(rx.buffer[body_end - 1], c.skipped ? 0 : img[body_end - 1]);
    }
}

}  // namespace
