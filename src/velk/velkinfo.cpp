// The velkinfo action: reads a VELK file through the stream parser and
// prints its release header, or with -all every valid content part.
#include "velk/velkinfo.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"

namespace {

constexpr uint32_t kHeaderOnlySize = 1024;
constexpr uint32_t kPreambleSize = VELK_ID_SIZE + VELK_HEADER_SIZE;  // 24

struct free_deleter {
    void operator()(void* p) const { std::free(p); }
};
struct parser_deleter {
    void operator()(velk_stream_parser* p) const { velk_stream_parser_deinit(p); }
};

bool release_header_complete(const velk_stream_parser* p)
{
    return p->found_headers >= 1 && p->parts[0] && p->parts[0]->type_id == VELK_TYPE_RELEASE_HEADER;
}

void print_part(const velk_stream_parser* p, int i)
{
    zb_printf("-------------------------------------------------------\n");
    const velk_content_header* h = p->parts[i];
    if (!h) {  // header-only mode: part 0 did not arrive whole
        velk_content_header_print(p, i);
        return;
    }
    char name[sizeof h->name + 1] = {};
    std::memcpy(name, h->name, sizeof h->name);
    zb_printf("Content Part: %i, type %d, name %s\n", i, h->type_id, name);
    velk_content_info_print(p, i);
    if (h->type_id == VELK_TYPE_RELEASE_HEADER) velk_release_header_print(p, i);
    else if (h->type_id == VELK_TYPE_SOFTWARE) velk_content_software_print(p, i);
}

int load_and_print(kor_options* options, const char* path, uint32_t buffer_size, int32_t header_only)
{
    std::unique_ptr<uint8_t, free_deleter> buffer(static_cast<uint8_t*>(std::calloc(buffer_size, 1)));
    if (!buffer) {
        log_console(LOG_ERR, "velkinfo: Could not allocated memory.\n");
        return 1;
    }
    std::unique_ptr<velk_stream_parser, parser_deleter> parser(velk_stream_parser_init(nullptr, buffer.get()));
    if (!parser) {
        log_console(LOG_ERR, "velkinfo: velk_stream_parser_init failed.\n");
        return 1;
    }
    velkinfo_ctx ctx{options, parser.get(), buffer_size, header_only};
    int32_t r = load_file(path, buffer.get(), buffer_size, velkinfo_receive, &ctx);
    int32_t s = velk_stream_parser_get_status(parser.get());
    if (r == 0 && s == 1) {
        log_console(LOG_ERR, "velkinfo: File contains no data.\n");
        return 9;
    }
    if (s < 0) {
        log_console(LOG_ERR, "velkinfo: loading VELK failed.\n");
        return 9;
    }
    int n = header_only ? 1 : velk_stream_parser_get_valid_content_parts(parser.get());
    for (int i = 0; i < n && i < static_cast<int>(VELK_MAX_PARTS); i++) print_part(parser.get(), i);
    return 0;
}

}  // namespace

size_t velkinfo_receive(void* data, size_t size, size_t count, void* ctx)
{
    KOR_ASSERT("kor", data != nullptr);
    KOR_ASSERT("kor", ctx != nullptr);
    auto* c = static_cast<velkinfo_ctx*>(ctx);
    velk_stream_parser* p = c->parser;
    KOR_ASSERT("kor", p != nullptr);
    size_t m = size * count;
    size_t fed = m;
    int32_t status = velk_stream_parser_get_status(p);
    if (status == 1) {
        // A first piece of 24 bytes or less cannot hold a header and any part.
        if (m <= kPreambleSize) velk_stream_parser_fail(p);
        if (m <= kPreambleSize || velk_stream_parser_hdr(p, kPreambleSize) != 1) {
            log_console(LOG_ERR, "velkinfo: no header\n");
            return 0;
        }
        fed = m - kPreambleSize;
    } else if (status != 2) {
        log_console(LOG_ERR, "velkinfo: PARSER failed\n");
        return 0;
    }
    int r = velk_stream_parser_next(p, static_cast<uint32_t>(fed));
    if (c->header_only && release_header_complete(p)) return 0;
    return r == VELK_SP_MORE ? m : 0;
}

int action_velkinfo(kor_options* options)
{
    KOR_ASSERT("kor", options != nullptr);
    const char* path = options->nwords > 1 ? options->words[1] : nullptr;
    if (!path) {
        log_console(LOG_ERR, "velkinfo: VELK is missing.\n");
        return 1;
    }
    int32_t size = fnsize(path);
    if (size < 0) {
        log_console(LOG_ERR, "velkinfo: could not open VELK\n");
        return 8;
    }
    if (size == 0) {
        log_console(LOG_ERR, "velkinfo: empty VELK\n");
        return 9;
    }
    if (static_cast<uint32_t>(size) > options->velksize) {
        log_console(LOG_ERR, "velkinfo: VELK too big\n");
        return 9;
    }
    bool all = options->nwords > 2 && options->words[2] && std::strncmp(options->words[2], "-all", 4) == 0;
    if (all) return load_and_print(options, path, static_cast<uint32_t>(size), 0);
    return load_and_print(options, path, kHeaderOnlySize, 1);
}
