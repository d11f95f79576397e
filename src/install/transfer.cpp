// Image transport: recognises a URL or a file path, and brings a file image
// into the one image buffer through the stream receiver.
#include <cstdio>
#include <cstdint>

#include <sys/mman.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "base/progress.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

// The file's size decides the buffer; 0 when it is acceptable, else the
// install's exit status.
int check_file_size(const char* path, uint32_t velksize, int32_t* size)
{
    *size = fnsize(path);
    if (*size < 0) {
        log_console(LOG_ERR, "install: could not open VELK\n");
        return 8;
    }
    if (*size == 0) {
        log_console(LOG_ERR, "install: empty VELK\n");
        return 9;
    }
    if (static_cast<uint32_t>(*size) > velksize) {
        log_console(LOG_ERR, "install: VELK too big\n");
        return 9;
    }
    return 0;
}

int transfer_file(install_ctx* ctx, const char* path)
{
    int32_t size = 0;
    int r = check_file_size(path, ctx->options->velksize, &size);
    if (r != 0) return r;
    r = image_buffer_setup(ctx, static_cast<uint32_t>(size));
    if (r != 0) return r;
    if (load_file(path, ctx->buffer, ctx->buffer_size, install_receive, ctx) == 0) {
        if (int refused = install_signature_status(ctx)) return refused;
        log_console(LOG_ERR, "install: failed to load VELK\n");
        return 9;
    }
    return 0;
}

// Filling a fresh buffer costs a page fault per page, which dominates taking
// in a large image; 2 MiB pages cut the faults by 512. The buffer is mapped
// as whole 2 MiB pages on a 2 MiB boundary so that all of it can have them
// (a kernel without them ignores the advice: it changes no byte). Anonymous
// pages arrive zero-filled.
constexpr uintptr_t HUGE_PAGE = uintptr_t{2} << 20;

// 0 when the rounded size (with the page for alignment) does not fit the
// address space, as a -velksize near 4 GiB on a 32-bit device.
size_t mapped_size(uint32_t size)
{
    uint64_t length = (uint64_t{size ? size : 1u} + HUGE_PAGE - 1) & ~uint64_t{HUGE_PAGE - 1};
    return length + HUGE_PAGE <= SIZE_MAX ? static_cast<size_t>(length) : 0;
}

uint8_t* map_buffer(size_t length)
{
    if (length == 0) return nullptr;
    // One huge page more than needed, then what lies outside the aligned
    // block goes back.
    void* p = ::mmap(nullptr, length + HUGE_PAGE, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    uintptr_t start = reinterpret_cast<uintptr_t>(p);
    uintptr_t aligned = (start + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    uintptr_t end = start + length + HUGE_PAGE;
    if (aligned > start) (void)::munmap(p, aligned - start);
    if (end > aligned + length)
        (void)::munmap(reinterpret_cast<void*>(aligned + length), end - aligned - length);
    (void)::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
    return reinterpret_cast<uint8_t*>(aligned);
}

}  // namespace

uint8_t* image_map(uint32_t size)
{
    return map_buffer(mapped_size(size));
}

void image_unmap(uint8_t* buffer, uint32_t size)
{
    if (buffer) (void)::munmap(buffer, mapped_size(size));
}

int image_buffer_setup(install_ctx* ctx, uint32_t size)
{
    ctx->buffer = image_map(size);
    if (!ctx->buffer) {
        log_console(LOG_ERR, "install: could not allocate %u bytes for the VELK\n", size);
        return 1;
    }
    ctx->buffer_size = size;
    ctx->buffer_fill = 0;
    ctx->parser = velk_stream_parser_init(nullptr, ctx->buffer);
    if (!ctx->parser) {
        log_console(LOG_ERR, "install: could not allocate the VELK parser\n");
        return 1;
    }
    return 0;
}

int source_is_url(const char* source, char scheme[10])
{
    char host[200];
    char path[200];
    scheme[0] = '\0';
    if (std::sscanf(source, "%9[^:]://%199[^/]/%199s", scheme, host, path) == 3) return 1;
    if (std::sscanf(source, "file:///%199s", path) == 1) return 1;
    scheme[0] = '\0';
    return 0;
}

velk_content_header* const* install_parts(const install_ctx* ctx)
{
    KOR_ASSERT("kor", ctx && (ctx->parser || ctx->stream));
    return ctx->stream ? ctx->stream->parts : velk_stream_parser_content_parts(ctx->parser);
}

int transfer_image(install_ctx* ctx, hostconfig* hc, const char* source)
{
    KOR_ASSERT("kor", ctx && ctx->options && source);
    if (ctx->stream) return stream_first_pass(ctx, hc, source);
    char scheme[10];
    int url = source_is_url(source, scheme);
    // A file is planned from its first part on; a URL only once "korm" is in.
    ctx->next_element = url ? -1 : 0;
    progress_start();
    int r = url ? transfer_url(ctx, hc, source, scheme) : transfer_file(ctx, source);
    progress_end();
    if (r != 0) return r;
    if (velk_stream_parser_get_status(ctx->parser) != 3) {
        log_console(LOG_ERR, "install: incomplete VELK\n");
        return 9;
    }
    if (!install_check_signature_end(ctx)) return install_signature_status(ctx);
    return 0;
}

void transfer_release(install_ctx* ctx)
{
    if (ctx->stream) stream_release(ctx);
    if (ctx->parser) velk_stream_parser_deinit(ctx->parser);
    ctx->parser = nullptr;
    image_unmap(ctx->buffer, ctx->buffer_size);
    ctx->buffer = nullptr;
    velk_sig_check_release(&ctx->sig);
    curl_release(ctx);
}
