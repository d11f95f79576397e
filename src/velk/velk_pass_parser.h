// Pass-through VELK parser: the same checks as the stream parser, for an
// image that never sits in memory whole. The caller hands over pieces in
// image order; the parser keeps the file header and the content header in
// front of it, and reports each body as the pieces of the caller's bytes it
// lies in, with the body CRC computed on the way. Offsets are 64-bit: an
// image of the format's largest size (beyond 4 GiB with a long file header)
// is walked as any other.
#pragma once

#include <cstddef>
#include <cstdint>

#include "velk/velk.h"
#include "velk/velk_stream_parser.h"

constexpr uint32_t VELK_FILE_HEADER_BYTES = VELK_ID_SIZE + VELK_HEADER_SIZE;
constexpr uint32_t VELK_CONTENT_HEADER_MAX = 0xFFFF;  // hdr_length is 16 bits

// What one step of the parser found.
enum velk_pass_kind : int32_t {
    VELK_PASS_MORE = 0,         // every byte handed over is taken; more are needed
    VELK_PASS_FILE_HEADER = 1,  // the identification and file header are in `file_header`
    VELK_PASS_HEADER = 2,       // content header `part` passed its check; it is in `header`
    VELK_PASS_BODY = 3,         // `length` body bytes of `part` at `data`, from body offset `at`
    VELK_PASS_BODY_END = 4,     // the body of `part` and its padding passed; `valid` tells its CRC
    VELK_PASS_COMPLETE = 5,     // the image ended with a body: nothing more is taken
};

struct velk_pass_event {
    int32_t kind;
    int32_t part;
    const uint8_t* data;
    uint32_t length;
    uint32_t at;
    int32_t valid;  // BODY_END: 1 CRC good, -1 bad
};

struct velk_pass_parser {
    int32_t status;        // 1 file header expected, 2 content parts, 3 complete, -1 failed
    uint32_t parse_state;  // inner state (see the source)
    uint64_t position;     // image offset of the next byte the parser takes
    uint64_t end;          // 8 + hdr_length + body_length of the file header
    int32_t index;         // the content part being parsed
    int32_t found_headers;
    uint32_t have;         // bytes of the header being collected
    uint32_t skip_left;    // bytes of the file header's own fields still to pass over
    uint32_t body_done;    // body bytes of the current part passed
    uint32_t pad_left;     // padding bytes behind the body still to pass over
    uint32_t crc;          // CRC-32 of the body bytes passed
    uint8_t allocated;     // init allocated the record; deinit frees it
    uint8_t file_header[VELK_FILE_HEADER_BYTES];
    alignas(8) uint8_t header[VELK_CONTENT_HEADER_MAX + 1];
};

// As velk_stream_parser_init: null allocates a record (null when that
// fails). The parser then expects the identification at image offset 0.
velk_pass_parser* velk_pass_parser_init(velk_pass_parser* p);
void velk_pass_parser_deinit(velk_pass_parser* p);
// Back to the identification at image offset 0, for a source read again
// from its start.
void velk_pass_parser_restart(velk_pass_parser* p);

// Takes bytes from *data (*n of them) up to the next event, moves *data and
// *n past what it took and describes the event in `ev`. Returns the event's
// kind, or a negative result of the stream parser's vocabulary, after which
// the parser is failed for good: -3 identification, -5 file header version,
// -1 a header too short (a file header below 16 bytes included) or a part
// off the 4-byte grid, -2 a content header CRC, -5 a part that runs past the
// image's end (refused as soon as its header is in), -6 a 21st part.
// A BODY event points into the caller's bytes; a HEADER event into the
// record: both stay valid until the next call.
[[nodiscard]] int velk_pass_parser_step(velk_pass_parser* p, const uint8_t** data, size_t* n,
                                        velk_pass_event* ev);

// Right after a HEADER event: the body of that part will not be handed
// over. Returns the image offset of the next byte expected.
uint64_t velk_pass_parser_skip(velk_pass_parser* p);

// The file header was taken: expect content part `index` at image offset
// `offset` next, which the caller knows from an earlier walk of the image.
void velk_pass_parser_seek(velk_pass_parser* p, int32_t index, uint64_t offset);

const velk_content_header* velk_pass_parser_header(const velk_pass_parser* p);
// The header of the part being parsed is in: its body (or padding) comes next.
bool velk_pass_parser_in_body(const velk_pass_parser* p);
