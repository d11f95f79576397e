// Response header lines as libcurl hands them over, one line per call, to
// the HTTP (or, with bit 0 of byte 0, the FTP) header callback of a URL
// install in range mode. The stored text must stay terminated inside its
// field, and range mode may only ever be switched off.
#include <cstdlib>
#include <cstring>

#include "install/install.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    const bool ftp = data[0] & 1;
    auto* ctx = new install_ctx{};
    ctx->range_mode = 1;
    size_t at = 1;
    while (at < size) {
        const uint8_t* end = static_cast<const uint8_t*>(std::memchr(data + at, '\n', size - at));
        size_t n = end ? size_t(end - (data + at)) + 1 : size - at;
        // Each line in a block of its own, so reading past it is a report.
        char* line = static_cast<char*>(std::malloc(n));
        std::memcpy(line, data + at, n);
        size_t r = ftp ? ftp_header_callback(line, 1, n, ctx) : http_header_callback(line, 1, n, ctx);
        std::free(line);
        check(r == n || r == 0);
        check(ctx->header_fill < INSTALL_HEADER_TEXT && ctx->header_text[ctx->header_fill] == '\0');
        check(ctx->range_mode == 0 || ctx->range_mode == 1);
        if (ftp) check(ctx->range_mode == 1);
        if (r == 0) break;
        at += n;
    }
    delete ctx;
    return 0;
}
