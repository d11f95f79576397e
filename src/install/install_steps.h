// The steps of the install action, shared by its source files.
#pragma once

#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "velk/velk_pass_parser.h"

// ---- Streaming install (-stream) ----
//
// The image is read twice. The first pass reads every content header and
// keeps it, with the bodies the install reads itself (the first part, release
// headers, signature parts and the KORM descriptor), and passes over every
// other body (a seek, or a new byte range). With every header in, the plan
// and every check are complete before the first write, as without -stream.
// The second pass, inside the critical region, brings the bodies to write
// and writes each into its partition as it arrives; a part whose early write
// could harm a set in use is held in memory and written after all others.

// Every header is held with at least this many bytes from its start, so
// that the fixed fields read from it (the software version, the 64 bytes
// recorded for a partition, the release information) lie in it; what lies
// beyond a shorter header reads as zero.
constexpr uint32_t STREAM_HEADER_ROOM = 76;

// What the second pass does with a content part's body.
enum class stream_use : uint8_t {
    skip,   // nothing: not written
    write,  // written into its partition as it arrives
    hold,   // read into memory, written after every written part was verified
    held,   // in memory since the first pass, written with the held parts
};

// The partition that the part in flight is written to: whole blocks go to
// the device directly, the ragged end through the cache.
struct stream_sink {
    int fd;
    bool direct;    // the descriptor is in direct I/O
    uint64_t at;    // partition offset of the first staged byte
    uint32_t fill;  // bytes staged in the device I/O buffer
    int element;    // the KORM element being written
    char device[32];
};

struct install_stream {
    velk_pass_parser* parser;
    int32_t pass;         // 1: headers; 2: bodies
    bool url;
    int file_fd;          // a file source, -1 for a URL
    uint8_t* window;      // a file source: the piece being read
    uint32_t window_size;
    uint64_t size;        // a file source: its size
    uint64_t resume_at;   // image offset at which the source goes on
    uint64_t asked_from;  // a URL source: the offset the running request asked for
    bool answered;        // its answer has been looked at
    uint64_t received;    // bytes from the source over both passes
    int32_t skips;        // bodies passed over without being read
    int32_t failure;      // status a failure inside the receiver asks for; 0: the source's
    uint8_t file_header[VELK_FILE_HEADER_BYTES];
    int32_t count;        // content parts of the image
    velk_content_header* parts[VELK_MAX_PARTS];  // headers (and bodies when `whole`)
    bool whole[VELK_MAX_PARTS];
    uint64_t offset[VELK_MAX_PARTS];  // image offset of each part's header
    stream_use use[VELK_MAX_PARTS];
    int8_t element[VELK_MAX_PARTS];   // the element a written part goes to
    int32_t first;        // the first and last part the second pass reads; -1: none
    int32_t last;
    uint8_t held_elements[KORL_KORM_ELEMENTS];  // written from memory at the end
    stream_sink sink;
    const char* source;
    char scheme[10];
};

// What one install keeps for its whole run.
struct install_run {
    kor_options* opts;
    korl_data data;
    korl_data stored;  // the record as loaded, before the plan was recorded
    hostconfig hc;
    install_ctx ctx;
    velk_keyring keys;  // the keys that may sign the image
    const char* source;
    int wanted_set;  // -1: choose automatically
    bool autoset;    // the set was chosen automatically
    install_stream stream;  // -stream only
};

// A step's result when the install goes on; any other value is the status
// with which the install ends.
constexpr int INSTALL_GO_ON = -1;

// Release checks, recording of the plan and the check of kept partitions.
[[nodiscard]] int check_release(install_run* run);
[[nodiscard]] int record_plan(install_run* run);
[[nodiscard]] int check_kept(install_run* run);
// Every partition the plan writes is a block device large enough for it.
[[nodiscard]] int check_targets(install_run* run);
// With -stream: which parts are written as they arrive and which are held,
// and whether those held fit -velksize.
[[nodiscard]] int plan_stream(install_run* run);
// The autoset claim, and the critical region: write, record, activate.
[[nodiscard]] int claim_autoset(install_run* run);
[[nodiscard]] int commit_install(install_run* run);

// The "korm" part is complete: parse the descriptor and plan the install.
// false after a refusal (message logged).
[[nodiscard]] bool install_plan_korm(install_ctx* c, const velk_content_header* cp);

// Streaming. The first pass: buffer, parser, the source from byte 0; 0 or
// the install's exit status (message logged).
[[nodiscard]] int stream_first_pass(install_ctx* ctx, hostconfig* hc, const char* source);
// The second pass and the held parts: the install_write_out of -stream.
install_write_result stream_write_out(install_run* run);
void stream_release(install_ctx* ctx);
// The receiver's side, called by install_receive for every piece.
size_t stream_receive(install_ctx* c, const uint8_t* data, size_t n);
// Draws the progress line of the reading under way (a terminal only).
void stream_progress(const install_ctx* c);
// Reads a file source from s->resume_at on, piece after piece, into the
// receiver, following its skips. 0 when the receiver has what it wanted,
// else the install's exit status.
[[nodiscard]] int stream_read_file(install_ctx* ctx);
// A URL source from s->resume_at (with a byte range when the source takes
// them, else from byte 0). Same results.
[[nodiscard]] int stream_read_url(install_ctx* ctx);

// The partition of the part in flight. begin prints the "Writing out" line
// and opens it; body writes arriving bytes; end flushes it, reads it back
// and checks it. Each logs its failure (the element's metadata cleared).
[[nodiscard]] bool stream_sink_begin(install_ctx* c, int32_t part);
[[nodiscard]] bool stream_sink_body(install_ctx* c, const uint8_t* data, uint32_t n);
[[nodiscard]] bool stream_sink_end(install_ctx* c, int32_t part);
void stream_sink_abandon(stream_sink* k);

// The partition writer's pieces the stream writer shares.
// Bytes of [p, p + n) written at `at`; fewer when a write fails (errno set).
uint64_t device_write_at(int fd, const uint8_t* p, uint64_t n, uint64_t at);
// The plan line of element slot i (with -v, or when it is written).
// When a part is in (its body, or with -stream its header): the late decision of
// an element whose version is decided on arrival, and the walk along the elements.
void install_settle_element(install_ctx* c, const velk_content_header* h, int32_t k);
void install_plan_line(const install_ctx* c, int i);
// Reads the partition of element i back; false (and its metadata cleared)
// when it does not hold what was recorded.
bool install_verify_element(install_ctx* c, int i);
// Logs a failed write of element i and clears its partition's metadata.
void install_write_failed(install_ctx* c, int i);
// Writes the planned elements that `only` marks (every one when null)
// without printing the plan lines.
install_write_result install_write_selected(install_ctx* ctx, const uint8_t* only);
