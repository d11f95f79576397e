// Pass-through VELK parser.
//
// It makes the stream parser's decisions in the same order (identification,
// version, grid, header length, header CRC, part count, image end), so that
// an image one of them takes whole the other takes too, with the same parts
// and the same body verdicts. Two refusals come earlier: a file header of
// fewer than 16 bytes, whose content parts would overlap it, and a part whose
// header says it runs past the image's end, before any of its body arrives.
#include "velk/velk_pass_parser.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"

#define PP_ASSERT(cond) KOR_ASSERT("velk_pass_parser", cond)

namespace {

enum pass_state : uint32_t {
    PS_FILE_HEADER = 0,  // the identification and the 16-byte file header
    PS_FILE_REST = 1,    // the file header's bytes beyond 16, passed over
    PS_FIXED = 2,        // the 32 fixed bytes of a content header
    PS_REST = 3,         // the rest of the content header
    PS_BODY = 4,         // the body, then its padding
    PS_COMPLETE = 5,
};

constexpr int32_t STEP_ON = -100;  // a state step finished without an event

uint64_t padded(uint32_t n) { return (uint64_t{n} + 3u) & ~uint64_t{3}; }

const velk_content_header* current(const velk_pass_parser* p)
{
    return reinterpret_cast<const velk_content_header*>(p->header);
}

int fail(velk_pass_parser* p, int code)
{
    p->status = -1;
    return code;
}

// Moves up to `want` bytes of the input into `to` (null: passed over).
uint32_t take(velk_pass_parser* p, const uint8_t** data, size_t* n, uint8_t* to, uint32_t want)
{
    uint32_t k = *n < want ? static_cast<uint32_t>(*n) : want;
    if (to != nullptr) std::memcpy(to, *data, k);
    *data += k;
    *n -= k;
    p->position += k;
    return k;
}

int step_file_header(velk_pass_parser* p, const uint8_t** data, size_t* n, velk_pass_event* ev)
{
    p->have += take(p, data, n, p->file_header + p->have, VELK_FILE_HEADER_BYTES - p->have);
    if (p->have < VELK_FILE_HEADER_BYTES) return VELK_PASS_MORE;
    uint32_t id[2];
    std::memcpy(id, p->file_header, sizeof id);
    if (id[0] != VELK_ID_WORD1 || id[1] != VELK_ID_WORD2) return fail(p, VELK_SP_ERR_IDENT);
    velk_header h;
    std::memcpy(&h, p->file_header + VELK_ID_SIZE, sizeof h);
    if (h.version != 1) return fail(p, VELK_SP_ERR_VERSION);
    if (h.hdr_length < VELK_HEADER_SIZE) return fail(p, VELK_SP_ERR_SHORT_HEADER);
    p->end = uint64_t{VELK_ID_SIZE} + h.hdr_length + h.body_length;
    p->skip_left = h.hdr_length - VELK_HEADER_SIZE;
    p->have = 0;
    p->status = 2;
    p->parse_state = PS_FILE_REST;
    ev->kind = VELK_PASS_FILE_HEADER;
    ev->data = p->file_header;
    ev->length = VELK_FILE_HEADER_BYTES;
    return VELK_PASS_FILE_HEADER;
}

int step_file_rest(velk_pass_parser* p, const uint8_t** data, size_t* n)
{
    p->skip_left -= take(p, data, n, nullptr, p->skip_left);
    if (p->skip_left > 0) return VELK_PASS_MORE;
    p->parse_state = PS_FIXED;
    return STEP_ON;
}

int step_fixed(velk_pass_parser* p, const uint8_t** data, size_t* n)
{
    if (p->have == 0) {
        // The tables of the install hold 20 parts; a part starts on the
        // 4-byte grid that header lengths and padded bodies keep.
        if (p->index >= static_cast<int32_t>(VELK_MAX_PARTS)) return fail(p, VELK_SP_ERR_TOO_MANY);
        if (p->position % 4 != 0) return fail(p, VELK_SP_ERR_SHORT_HEADER);
    }
    p->have += take(p, data, n, p->header + p->have, VELK_CONTENT_HEADER_SIZE - p->have);
    if (p->have < VELK_CONTENT_HEADER_SIZE) return VELK_PASS_MORE;
    if (current(p)->hdr_length < VELK_CONTENT_HEADER_SIZE) return fail(p, VELK_SP_ERR_SHORT_HEADER);
    p->parse_state = PS_REST;
    return STEP_ON;
}

int step_rest(velk_pass_parser* p, const uint8_t** data, size_t* n, velk_pass_event* ev)
{
    const uint32_t length = current(p)->hdr_length;
    p->have += take(p, data, n, p->header + p->have, length - p->have);
    if (p->have < length) return VELK_PASS_MORE;
    if (velk_validate_content_header(current(p)) < 0) return fail(p, VELK_SP_ERR_HEADER_CRC);
    p->found_headers++;
    if (p->position + padded(current(p)->body_length) > p->end) return fail(p, VELK_SP_ERR_PAST_END);
    p->body_done = 0;
    p->pad_left = static_cast<uint32_t>(padded(current(p)->body_length) - current(p)->body_length);
    p->crc = 0;
    p->parse_state = PS_BODY;
    ev->kind = VELK_PASS_HEADER;
    ev->part = p->index;
    ev->data = p->header;
    ev->length = length;
    return VELK_PASS_HEADER;
}

void next_part(velk_pass_parser* p)
{
    p->have = 0;
    if (p->position == p->end) {
        p->status = 3;
        p->parse_state = PS_COMPLETE;
        return;
    }
    p->index++;
    p->parse_state = PS_FIXED;
}

int step_body(velk_pass_parser* p, const uint8_t** data, size_t* n, velk_pass_event* ev)
{
    const velk_content_header* h = current(p);
    if (p->body_done < h->body_length) {
        if (*n == 0) return VELK_PASS_MORE;
        const uint8_t* at = *data;
        uint32_t k = take(p, data, n, nullptr, h->body_length - p->body_done);
        p->crc = crc32_calc(p->crc, at, k);
        ev->kind = VELK_PASS_BODY;
        ev->part = p->index;
        ev->data = at;
        ev->length = k;
        ev->at = p->body_done;
        p->body_done += k;
        return VELK_PASS_BODY;
    }
    p->pad_left -= take(p, data, n, nullptr, p->pad_left);
    if (p->pad_left > 0) return VELK_PASS_MORE;
    ev->kind = VELK_PASS_BODY_END;
    ev->part = p->index;
    ev->length = h->body_length;
    ev->valid = p->crc == h->body_crc ? 1 : -1;
    next_part(p);
    return VELK_PASS_BODY_END;
}

}  // namespace

velk_pass_parser* velk_pass_parser_init(velk_pass_parser* p)
{
    bool allocate = p == nullptr;
    if (allocate) {
        p = static_cast<velk_pass_parser*>(std::calloc(1, sizeof *p));
        if (!p) return nullptr;
    }
    // The header buffer is filled before it is read: only the state is reset.
    std::memset(static_cast<void*>(p), 0, offsetof(velk_pass_parser, header));
    p->status = 1;
    p->parse_state = PS_FILE_HEADER;
    p->allocated = allocate ? 1 : 0;
    crc32_init();
    return p;
}

void velk_pass_parser_deinit(velk_pass_parser* p)
{
    if (p && p->allocated) std::free(p);
}

void velk_pass_parser_restart(velk_pass_parser* p)
{
    PP_ASSERT(p != nullptr);
    const uint8_t allocated = p->allocated;
    (void)velk_pass_parser_init(p);
    p->allocated = allocated;
}

int velk_pass_parser_step(velk_pass_parser* p, const uint8_t** data, size_t* n, velk_pass_event* ev)
{
    PP_ASSERT(p != nullptr && data != nullptr && n != nullptr && ev != nullptr);
    PP_ASSERT(p->status >= 1 && p->status <= 3);
    PP_ASSERT(*n == 0 || *data != nullptr);
    *ev = velk_pass_event{};
    for (;;) {
        int r;
        switch (p->parse_state) {
        case PS_FILE_HEADER: r = step_file_header(p, data, n, ev); break;
        case PS_FILE_REST: r = step_file_rest(p, data, n); break;
        case PS_FIXED: r = step_fixed(p, data, n); break;
        case PS_REST: r = step_rest(p, data, n, ev); break;
        case PS_BODY: r = step_body(p, data, n, ev); break;
        default: r = VELK_PASS_COMPLETE; break;
        }
        if (r == STEP_ON) continue;
        if (r >= 0) ev->kind = r;
        return r;
    }
}

uint64_t velk_pass_parser_skip(velk_pass_parser* p)
{
    PP_ASSERT(p != nullptr);
    PP_ASSERT(p->status == 2 && p->parse_state == PS_BODY && p->body_done == 0);
    p->position += padded(current(p)->body_length);
    next_part(p);
    return p->position;
}

void velk_pass_parser_seek(velk_pass_parser* p, int32_t index, uint64_t offset)
{
    PP_ASSERT(p != nullptr);
    PP_ASSERT(p->status == 2 || p->status == 3);
    PP_ASSERT(index >= 0 && offset < p->end);
    p->status = 2;
    p->parse_state = PS_FIXED;
    p->index = index;
    p->position = offset;
    p->have = 0;
}

const velk_content_header* velk_pass_parser_header(const velk_pass_parser* p)
{
    PP_ASSERT(p != nullptr);
    return current(p);
}

bool velk_pass_parser_in_body(const velk_pass_parser* p)
{
    PP_ASSERT(p != nullptr);
    return p->status == 2 && p->parse_state == PS_BODY;
}
