// Incremental VELK parser over a caller-owned image buffer.
//
// The caller places each arriving piece at its image offset and reports its
// length; the parser only moves offsets and runs the CRC checks in place, so
// the CRC is the one pass that touches every byte.
#include "velk/velk_stream_parser.h"

#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"

#define SP_ASSERT(cond) KOR_ASSERT("velk_stream_parser", cond)

namespace {

enum parse_state_t : uint32_t {
    PS_FRESH = 0,     // after init or a skip
    PS_FIXED = 1,     // waiting for the 32 fixed bytes of a content header
    PS_REST = 2,      // waiting for the rest of the content header
    PS_BODY = 3,      // header validated, waiting for the padded body
    PS_COMPLETE = 4,
};

constexpr int STEP_ON = 1;  // a state step finished; the loop goes on

uint32_t remaining(const velk_stream_parser* p)
{
    return p->position < p->available ? p->available - p->position : 0;
}

// Body plus padding; 64 bits so that a body_length near 4 GiB cannot wrap to 0.
uint64_t padded_body(const velk_content_header* part)
{
    return (uint64_t{part->body_length} + 3u) & ~uint64_t{3};
}

uint32_t image_end(const velk_header* header)
{
    uint64_t end = uint64_t{8} + header->hdr_length + header->body_length;
    return end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
}

int fail(velk_stream_parser* p, int code)
{
    p->status = -1;
    return code;
}

int step_fixed_header(velk_stream_parser* p)
{
    // The tables hold 20 parts; a further part refuses the image at once.
    if (p->index >= VELK_MAX_PARTS) return fail(p, VELK_SP_ERR_TOO_MANY);
    // Header lengths are multiples of 4 and bodies are padded, so a part
    // starts at a multiple of 4. Any other start comes from a header length
    // no writer makes, and the part's fields could not be read in place.
    if (p->position % 4 != 0) return fail(p, VELK_SP_ERR_SHORT_HEADER);
    if (remaining(p) < VELK_CONTENT_HEADER_SIZE) return VELK_SP_MORE;
    p->current = reinterpret_cast<velk_content_header*>(p->buffer + p->position);
    p->position += VELK_CONTENT_HEADER_SIZE;
    if (p->current->hdr_length < VELK_CONTENT_HEADER_SIZE) return fail(p, VELK_SP_ERR_SHORT_HEADER);
    p->end = image_end(p->header);
    p->parse_state = PS_REST;
    return STEP_ON;
}

int step_header_rest(velk_stream_parser* p)
{
    uint32_t rest = p->current->hdr_length - VELK_CONTENT_HEADER_SIZE;
    if (rest > remaining(p)) return VELK_SP_MORE;
    p->position += rest;
    if (velk_validate_content_header(p->current) < 0) return fail(p, VELK_SP_ERR_HEADER_CRC);
    p->found_headers++;
    p->info[p->index].header_seen = 1;
    p->parse_state = PS_BODY;
    return STEP_ON;
}

int step_body(velk_stream_parser* p)
{
    uint64_t padded = padded_body(p->current);
    if (padded > remaining(p)) return VELK_SP_MORE;
    velk_content_header* part = p->current;
    p->parts[p->index] = part;
    p->found++;
    const uint8_t* body = reinterpret_cast<const uint8_t*>(part) + part->hdr_length;
    if (velk_validate_content_body(part, body) > 0) {
        p->info[p->index].valid = 1;
        p->valid++;
    } else {
        p->info[p->index].valid = -1;
        p->invalid++;
    }
    p->position += static_cast<uint32_t>(padded);
    if (p->position == p->end) {
        p->parse_state = PS_COMPLETE;
        p->status = 3;
        return VELK_SP_COMPLETE;
    }
    if (p->position > p->end) return fail(p, VELK_SP_ERR_PAST_END);
    p->index++;
    p->parse_state = PS_FIXED;
    return STEP_ON;
}

}  // namespace

velk_stream_parser* velk_stream_parser_init(velk_stream_parser* p, uint8_t* buffer)
{
    SP_ASSERT(buffer != nullptr);
    bool allocate = p == nullptr;
    if (allocate) {
        p = static_cast<velk_stream_parser*>(std::calloc(1, sizeof *p));
        if (!p) return nullptr;
    }
    *p = velk_stream_parser{};  // counters 0, header, current and parts null
    p->buffer = buffer;
    p->status = 1;
    p->allocated = allocate ? 1 : 0;
    crc32_init();
    return p;
}

void velk_stream_parser_deinit(velk_stream_parser* p)
{
    if (p && p->allocated) std::free(p);
}

int velk_stream_parser_hdr(velk_stream_parser* p, uint32_t available)
{
    SP_ASSERT(p != nullptr);
    SP_ASSERT(p->status == 1);
    uint32_t id[2];
    std::memcpy(id, p->buffer, sizeof id);
    if (id[0] != VELK_ID_WORD1 || id[1] != VELK_ID_WORD2) return fail(p, VELK_SP_ERR_IDENT);
    p->header = reinterpret_cast<velk_header*>(p->buffer + VELK_ID_SIZE);
    if (p->header->version != 1) return fail(p, VELK_SP_ERR_VERSION);
    p->available = available;
    p->status = 2;
    p->position = VELK_ID_SIZE + p->header->hdr_length;
    return 1;
}

int velk_stream_parser_next(velk_stream_parser* p, uint32_t n)
{
    SP_ASSERT(p != nullptr);
    SP_ASSERT(p->status == 2);
    if (n == 0 && p->position >= p->available) return VELK_SP_MORE;
    p->available += n;
    if (p->parse_state == PS_FRESH) p->parse_state = PS_FIXED;
    for (;;) {
        int r;
        switch (p->parse_state) {
        case PS_FIXED: r = step_fixed_header(p); break;
        case PS_REST: r = step_header_rest(p); break;
        case PS_BODY: r = step_body(p); break;
        default: SP_ASSERT(false); return VELK_SP_MORE;
        }
        if (r != STEP_ON) return r;
    }
}

uint32_t velk_stream_parser_skip(velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    SP_ASSERT(p->parse_state == PS_BODY);
    p->parse_state = PS_FRESH;
    p->index++;
    // Offsets stay below 4 GiB: a body that would end beyond that ends past `end`.
    uint64_t next = uint64_t{p->position} + padded_body(p->current);
    p->position = next > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(next);
    p->available = p->position;
    p->found++;
    p->invalid++;
    if (p->position == p->end) {
        p->parse_state = PS_COMPLETE;
        p->status = 3;
    }
    return p->position;
}

int32_t velk_stream_parser_get_status(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->status;
}

int32_t velk_stream_parser_get_found_content_parts(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->found;
}

int32_t velk_stream_parser_get_found_content_part_headers(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->found_headers;
}

int32_t velk_stream_parser_get_valid_content_parts(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->valid;
}

int32_t velk_stream_parser_get_invalid_content_parts(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->invalid;
}

velk_content_header* const* velk_stream_parser_content_parts(const velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    return p->parts;
}

int32_t velk_stream_parser_content_part_is_valid(const velk_stream_parser* p, int32_t index)
{
    SP_ASSERT(p != nullptr);
    SP_ASSERT(index >= 0);
    if (index >= static_cast<int32_t>(VELK_MAX_PARTS)) return 0;  // never a part
    return p->info[index].valid;
}

void velk_stream_parser_debug_fix_found_parts(velk_stream_parser* p, uint32_t n)
{
    p->found = static_cast<int32_t>(n);
}

void velk_stream_parser_fail(velk_stream_parser* p)
{
    SP_ASSERT(p != nullptr);
    p->status = -1;
}
