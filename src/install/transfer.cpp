// Image transport: recognises a URL or a file path, and brings a file image
// into the one image buffer through the stream receiver.
#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>

#include "frontend/console.h"
#include "frontend/fileutil.h"
#include "frontend/options.h"
#include "install/install.h"

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
        log_console(LOG_ERR, "install: failed to load VELK\n");
        return 9;
    }
    return 0;
}

}  // namespace

// Filling a fresh buffer costs one page fault per 4 KiB, which dominates
// taking in a large image; 2 MiB pages cut that by 512. Only the 2 MiB-aligned
// inside of the block can take them, and a kernel without them ignores the
// advice: it changes no byte.
int image_buffer_setup(install_ctx* ctx, uint32_t size)
{
    size_t bytes = size ? size : 1;
    ctx->buffer = static_cast<uint8_t*>(std::calloc(bytes, 1));
    if (!ctx->buffer) {
        log_console(LOG_ERR, "install: could not allocate %u bytes for the VELK\n", size);
        return 1;
    }
    constexpr uintptr_t huge = uintptr_t{2} << 20;
    uintptr_t start = (reinterpret_cast<uintptr_t>(ctx->buffer) + huge - 1) & ~(huge - 1);
    uintptr_t end = (reinterpret_cast<uintptr_t>(ctx->buffer) + bytes) & ~(huge - 1);
    if (end > start) (void)::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
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

int transfer_image(install_ctx* ctx, hostconfig* hc, const char* source)
{
    KOR_ASSERT("kor", ctx && ctx->options && source);
    char scheme[10];
    int url = source_is_url(source, scheme);
    // A file is planned from its first part on; a URL only once "korm" is in.
    ctx->next_element = url ? -1 : 0;
    int r = url ? transfer_url(ctx, hc, source, scheme) : transfer_file(ctx, source);
    if (r != 0) return r;
    if (velk_stream_parser_get_status(ctx->parser) != 3) {
        log_console(LOG_ERR, "install: incomplete VELK\n");
        return 9;
    }
    return 0;
}

void transfer_release(install_ctx* ctx)
{
    if (ctx->parser) velk_stream_parser_deinit(ctx->parser);
    ctx->parser = nullptr;
    std::free(ctx->buffer);
    ctx->buffer = nullptr;
    curl_release(ctx);
}
