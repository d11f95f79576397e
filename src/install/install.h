// The install pipeline: action, transport, stream receiver, partition
// writer, set verification and plugin hooks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "korl/korl.h"
#include "velk/velk_sig.h"
#include "velk/velk_stream_parser.h"

struct kor_options;
struct hostconfig;
struct install_stream;

constexpr int INSTALL_STATE_HEADER = 1;
constexpr int INSTALL_STATE_PARSING = 2;
constexpr int INSTALL_STATE_SKIP = 3;
constexpr int INSTALL_STATE_DONE = 4;  // -stream: the receiver wants no more bytes
constexpr int INSTALL_STATE_FAILED = 17;
constexpr uint32_t INSTALL_HEADER_TEXT = 1000;

struct install_ctx {
    int32_t state;
    uint32_t header_handed;
    uint32_t received;
    velk_stream_parser* parser;
    int32_t parts_seen;
    uint8_t* buffer;
    uint32_t buffer_size;
    uint32_t buffer_fill;
    korm_element korm[KORL_KORM_ELEMENTS];
    int32_t korm_count;
    korl_data* data;
    uint8_t setidx;
    const korl_rhdr* release_header;
    ::velk_header* velk_header;
    kor_options* options;
    int32_t range_mode;
    char range[100];
    int32_t next_element;
    void* curl;
    char header_text[INSTALL_HEADER_TEXT];
    uint32_t header_fill;
    int32_t header_overflow;  // a response header did not fit header_text
    const velk_keyring* keys;  // the trusted keys; null: signatures are not checked
    velk_sig_check sig;        // the image against its signed manifest
    uint32_t resume_at;        // image offset the current request starts at
    int32_t answered;          // the current request's answer has been checked
    int32_t http;              // the source is http:// or https://: answers carry a status
    int32_t skips;             // bodies left out so far
    // -stream: what is held of the image and where each part lies (then
    // `parser` is null and `buffer` holds only the parts held in memory).
    install_stream* stream;
};

// Install exit statuses with a name of their own.
constexpr int KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE = 10;
constexpr int KOR_EXIT_FATAL_ERR_SINGLETON_WRITE = 11;
constexpr int KOR_EXIT_SIGNATURE_REFUSED = 15;  // the image is not what a trusted key signed
constexpr int KOR_EXIT_SIGNATURE_UNUSABLE = 18;  // keys or the crypto library cannot be used
constexpr int KOR_EXIT_TARGET_REFUSED = 17;  // a partition to write is missing, not a block device, read-only or too small

[[nodiscard]] int action_install(kor_options* opts);

// Transport. transfer_image returns 0 when the image is complete in the
// buffer, else the install's exit status (messages logged).
[[nodiscard]] int transfer_image(install_ctx* ctx, hostconfig* hc, const char* source);
void transfer_release(install_ctx* ctx);  // frees buffer and parser, cleans libcurl up
// An anonymous zero-filled mapping of `size` bytes for image bytes; null
// when it cannot be had. image_unmap takes the same size.
uint8_t* image_map(uint32_t size);
void image_unmap(uint8_t* buffer, uint32_t size);
// The one image buffer (zero-filled, `size` bytes) and its parser; 0, or 1
// with a message when either cannot be allocated.
[[nodiscard]] int image_buffer_setup(install_ctx* ctx, uint32_t size);
// The URL side of transfer_image: buffer, parser, libcurl handle, the restart
// loop behind skipped bodies and the download hook. Same results.
[[nodiscard]] int transfer_url(install_ctx* ctx, hostconfig* hc, const char* source,
                               const char* scheme);
void curl_setup(install_ctx* ctx, const char* url, const char* scheme, char* error_text);
void curl_release(install_ctx* ctx);  // the easy handle and libcurl's globals
size_t http_header_callback(char* data, size_t size, size_t count, void* ctx);
size_t ftp_header_callback(char* data, size_t size, size_t count, void* ctx);
int sockopt_callback(void* ctx, int socket, int purpose);
// 1 when the source is a URL (scheme filled, at most 9 characters), else 0.
int source_is_url(const char* source, char scheme[10]);

// Signed images. The keys of this run: the -keys= path or the compiled-in
// key directory; 0 when the install may go on (ctx->keys set when there are
// keys), else the exit status (message logged).
[[nodiscard]] int install_load_keys(install_ctx* ctx, velk_keyring* ring);
// The signature check of what the parser has taken so far; false when the
// image is refused (message logged).
[[nodiscard]] bool install_check_signature(install_ctx* ctx);
// The verdict `r` of one step of the check (velk_sig_*): true to go on (a
// manifest that verified in this step is logged), false when the image is
// refused (message logged).
[[nodiscard]] bool install_signature_verdict(install_ctx* ctx, int r);
// The image is complete: every part of the manifest arrived. Same results.
[[nodiscard]] bool install_check_signature_end(install_ctx* ctx);
// 0, or the exit status of a refusal by the signature check.
int install_signature_status(const install_ctx* ctx);
// The image's content parts by index: the parser's table, or with -stream
// the headers held (with the body for the parts held whole).
velk_content_header* const* install_parts(const install_ctx* ctx);

// Receiver and writer.
size_t install_receive(void* data, size_t size, size_t nmemb, void* ctx);
// Forgets everything received: the image starts again at byte 0, without
// ranges. 0, or 1 with a message when the parser cannot be made again.
[[nodiscard]] int install_receive_restart(install_ctx* ctx);
// Draws the progress line from what the receiver holds (nothing when
// standard error is no terminal).
void install_progress(const install_ctx* ctx);
struct install_write_result {
    int ok;          // 1 every planned element written and verified
    int pool_count;  // members of the pool of the element written last
    int status;      // -stream: the install's status after a failure that
                     // leaves the hostconfig as it was (0: none such)
};
install_write_result install_write_out(install_ctx* ctx);

// Set verification: 0 good, 1 no refs, 2 empty, 3 unreadable, 4 CRC mismatch.
[[nodiscard]] int verify_set(kor_options* opts, korl_data* d, int setidx, int verbose);

// Plugin hooks. Each is called only when present: linked into kor (weak
// symbols) or loaded from the -plugin= shared object.
struct kor_hooks {
    int (*install_hcfg_fail)(install_ctx*, hostconfig*, int);
    int (*install_data_rcvd)(install_ctx*);
    int (*install_post_dl)(install_ctx*, hostconfig*, int, const char*);
    int (*install_pre_metainstall)(install_ctx*, hostconfig*);
    int (*install_pre_install)(install_ctx*, hostconfig*);
    int (*install_post_write_out)(install_ctx*, hostconfig*);
    int (*install_post_activate)(install_ctx*, hostconfig*);
    int (*install_on_failure)(install_ctx*, hostconfig*, int);
    int (*activate_post)(korl_data*, hostconfig*);
};
// The hooks in force for this run (all null when none is present).
const kor_hooks* kor_hooks_get();
// Loads a plugin shared object and binds its hooks by name. 0 or -1
// (message logged).
[[nodiscard]] int kor_plugin_load(const char* path);
