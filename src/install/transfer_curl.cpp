// URL transport of the install: one libcurl easy handle, run again from a
// byte range each time the receiver leaves a content part out, and, with
// -retries=, after a failure of the link.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <curl/curl.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#include "base/console.h"
#include "base/options.h"
#include "install/install.h"
#include "install/install_steps.h"
#include "velk/velk_stream_parser.h"

namespace {

// A server that stalls is dropped once it has averaged below 100 B/s for
// 300 s (curl error 28). libcurl's sockets are non-blocking, so the 120 s
// socket time-outs do not end a stalled transfer earlier; only -timeout=
// bounds the whole download.
constexpr long CONNECT_TIMEOUT_S = 300;
constexpr long LOW_SPEED_LIMIT_BPS = 100;
constexpr long LOW_SPEED_TIME_S = 300;
constexpr time_t SOCKET_TIMEOUT_S = 120;
constexpr int PARSER_COMPLETE = 3;
// Waits between retries: 1, 2, 4 ... seconds, at most a minute.
constexpr uint32_t FIRST_BACKOFF_S = 1;
constexpr uint32_t MAX_BACKOFF_S = 60;

// libcurl and the libraries it pulls in (TLS, compression, name services)
// take longer to load than most of kor's commands take to run, and only an
// install by URL needs them: they are loaded on the first URL install.
struct curl_api {
    decltype(&curl_global_init) global_init;
    decltype(&curl_global_cleanup) global_cleanup;
    decltype(&curl_easy_init) easy_init;
    decltype(&curl_easy_setopt) easy_setopt;
    decltype(&curl_easy_perform) easy_perform;
    decltype(&curl_easy_reset) easy_reset;
    decltype(&curl_easy_cleanup) easy_cleanup;
    decltype(&curl_easy_getinfo) easy_getinfo;
};
curl_api api;

template <typename F>
bool bind(void* lib, F& fn, const char* name)
{
    fn = reinterpret_cast<F>(dlsym(lib, name));
    return fn != nullptr;
}

[[nodiscard]] bool curl_load()
{
    if (api.easy_init != nullptr) return true;
    void* lib = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) lib = dlopen("libcurl.so", RTLD_NOW | RTLD_LOCAL);
    curl_api a{};
    if (lib != nullptr && bind(lib, a.global_init, "curl_global_init") &&
        bind(lib, a.global_cleanup, "curl_global_cleanup") &&
        bind(lib, a.easy_init, "curl_easy_init") &&
        bind(lib, a.easy_setopt, "curl_easy_setopt") &&
        bind(lib, a.easy_perform, "curl_easy_perform") &&
        bind(lib, a.easy_reset, "curl_easy_reset") &&
        bind(lib, a.easy_cleanup, "curl_easy_cleanup") &&
        bind(lib, a.easy_getinfo, "curl_easy_getinfo")) {
        api = a;
        return true;
    }
    const char* why = dlerror();
    log_console(LOG_ERR, "install: could not load libcurl: %s\n", why ? why : "");
    return false;
}

// libcurl's callback types differ from the receiver's and the socket
// callback's declared types (char* vs void*, curlsocktype vs int); these
// forwarders keep every call through a pointer of the exact type.
size_t receive_fwd(char* data, size_t size, size_t nmemb, void* ctx);

int sockopt_fwd(void* ctx, curl_socket_t socket, curlsocktype purpose)
{
    return sockopt_callback(ctx, socket, static_cast<int>(purpose));
}

bool range_scheme(const char* scheme)
{
    return strcmp(scheme, "http") == 0 || strcmp(scheme, "ftp") == 0 ||
           strcmp(scheme, "file") == 0;
}

// -stream leans on ranges to read the headers before the bodies, so it asks
// for them whenever the scheme has them, -rewrite or not.
bool ranges_wanted(const install_ctx* ctx, const char* scheme)
{
    if (!ctx->stream) return !ctx->options->rewrite && range_scheme(scheme);
    return range_scheme(scheme) || strcmp(scheme, "https") == 0;
}

bool image_complete(const install_ctx* ctx)
{
    if (ctx->stream) return ctx->stream->parser->status == PARSER_COMPLETE;
    return velk_stream_parser_get_status(ctx->parser) == PARSER_COMPLETE;
}

void clear_header_text(install_ctx* ctx)
{
    memset(ctx->header_text, 0, sizeof ctx->header_text);
    ctx->header_fill = 0;
}

// Appends one header line to header_text. Returns 0 when the line does not
// fit the 999 characters of text; the transfer then ends with an error.
size_t store_header_line(install_ctx* ctx, const char* data, size_t n)
{
    constexpr size_t limit = INSTALL_HEADER_TEXT - 1;
    if (n > limit - ctx->header_fill) {
        ctx->header_overflow = 1;
        ctx->state = INSTALL_STATE_FAILED;  // not a restart, even behind a skip
        log_console(LOG_ERR, "install: response header longer than %u bytes\n",
                    static_cast<unsigned>(limit));
        return 0;
    }
    memcpy(ctx->header_text + ctx->header_fill, data, n);
    ctx->header_fill += static_cast<uint32_t>(n);
    ctx->header_text[ctx->header_fill] = '\0';
    return n;
}

bool header_complete(const install_ctx* ctx)
{
    return ctx->header_fill >= 4 &&
           memcmp(ctx->header_text + ctx->header_fill - 4, "\r\n\r\n", 4) == 0;
}

// A redirect is refused rather than followed: following it could move the
// update to another server unnoticed, and the range restart reads the
// headers of one response only. `line` is the stored, zero-terminated line.
bool refuse_redirect(install_ctx* ctx, const char* line)
{
    int code = 0;
    if (sscanf(line, "HTTP/%*3[0-9.] %3d", &code) != 1 || code < 300 || code > 399) return false;
    log_console(LOG_ERR,
                "install: server answered with a redirect (%d); redirects are not followed\n",
                code);
    ctx->state = INSTALL_STATE_FAILED;  // not a restart, even behind a skip
    return true;
}

// A complete HTTP/1.1 response header without a readable Content-Range line
// means the server sends the whole image: nothing can be left out.
void check_content_range(install_ctx* ctx)
{
    if (strncmp(ctx->header_text, "HTTP/1.1", 8) != 0 || !header_complete(ctx)) return;
    const char* line = strstr(ctx->header_text, "Content-Range: ");
    char first[20];
    char last[20];
    char total[20];
    if (line == nullptr ||
        sscanf(line, "Content-Range: %19[^-]-%19[^/]/%19[^\n]", first, last, total) != 3) {
        ctx->range_mode = 0;
    }
}

// Buffer and parser for a URL image of at most -velksize bytes.
[[nodiscard]] int url_buffer_setup(install_ctx* ctx)
{
    int r = image_buffer_setup(ctx, ctx->options->velksize);
    if (r != 0) return r;
    ctx->range_mode = 0;
    clear_header_text(ctx);
    return 0;
}

[[nodiscard]] int curl_handle_setup(install_ctx* ctx)
{
    if (!curl_load()) return 1;
    api.global_init(CURL_GLOBAL_ALL);
    ctx->curl = api.easy_init();
    if (ctx->curl == nullptr) {
        api.global_cleanup();
        log_console(LOG_ERR, "install: curl_easy_init failed\n");
        return 1;
    }
    return 0;
}

long response_code(const install_ctx* ctx)
{
    long code = 0;
    if (api.easy_getinfo(static_cast<CURL*>(ctx->curl), CURLINFO_RESPONSE_CODE, &code) != CURLE_OK)
        return 0;
    return code;
}

// The first piece of an answer to a request from byte resume_at > 0. A 206
// must start where it was asked to; a 200 brings the whole image, so what
// is held goes and the transfer goes on from byte 0 without ranges. false
// ends the transfer (state failed).
bool take_resume_answer(install_ctx* ctx)
{
    long code = response_code(ctx);
    if (code == 206) {
        const char* line = strstr(ctx->header_text, "Content-Range: bytes ");
        unsigned first = 0;
        if (line == nullptr || sscanf(line, "Content-Range: bytes %u-", &first) != 1 ||
            first == ctx->resume_at)
            return true;
        log_console(LOG_ERR, "install: server resumed at byte %u instead of %u\n", first,
                    static_cast<unsigned>(ctx->resume_at));
    } else if (code == 200) {
        log_always(LOG_NOTICE,
                   "install: server sent the whole image instead of the rest from byte %u; "
                   "starting again from byte 0 without ranges\n",
                   static_cast<unsigned>(ctx->resume_at));
        if (install_receive_restart(ctx) == 0) return true;
    } else {
        log_console(LOG_ERR, "install: server answered %ld to the request from byte %u\n", code,
                    static_cast<unsigned>(ctx->resume_at));
    }
    ctx->state = INSTALL_STATE_FAILED;
    return false;
}

// -stream: the first bytes of an HTTP answer. Only a 206 carries the range
// asked for: to the first request (from byte 0) any other answer brings the
// whole image and ranges are off from then on; to a later request it would
// put bytes at the wrong offsets.
bool stream_answer_usable(install_ctx* ctx)
{
    install_stream* s = ctx->stream;
    if (s->answered || !ctx->http) return true;
    s->answered = true;
    long code = response_code(ctx);
    if (code == 206) return true;
    if (s->asked_from == 0) {
        ctx->range_mode = 0;
        return true;
    }
    log_console(LOG_ERR, "install: server answered %ld to the request from byte %llu\n", code,
                static_cast<unsigned long long>(s->asked_from));
    ctx->state = INSTALL_STATE_FAILED;
    return false;
}

size_t receive_fwd(char* data, size_t size, size_t nmemb, void* ctx)
{
    auto* c = static_cast<install_ctx*>(ctx);
    if (c->stream) {
        if (!stream_answer_usable(c)) return size * nmemb + 1;
        return install_receive(data, size, nmemb, ctx);
    }
    if (!c->answered) {
        c->answered = 1;
        if (c->http && c->resume_at > 0 && !take_resume_answer(c)) return size * nmemb + 1;
    }
    return install_receive(data, size, nmemb, ctx);
}

uint64_t now_ms()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000 + static_cast<uint64_t>(t.tv_nsec) / 1000000;
}

// What -retries= and -timeout= allow one transfer.
struct transfer_budget {
    int32_t retries;       // -retries=
    int32_t retry;         // retries made
    uint32_t backoff_s;    // wait before the next retry
    uint32_t timeout_s;    // -timeout=, 0 none
    uint64_t deadline_ms;  // on the monotonic clock, when timeout_s > 0
    bool expired;          // the deadline ended the transfer
};

transfer_budget budget_of(const kor_options* o)
{
    transfer_budget b{};
    b.retries = o->retries;
    b.backoff_s = FIRST_BACKOFF_S;
    b.timeout_s = o->timeout;
    if (o->timeout > 0) b.deadline_ms = now_ms() + uint64_t{o->timeout} * 1000;
    return b;
}

// Milliseconds left before the deadline (at least 1, so that libcurl ends
// the next request at once rather than taking 0 for no limit); 0 none.
long time_left_ms(const transfer_budget& b)
{
    if (b.timeout_s == 0) return 0;
    uint64_t now = now_ms();
    return now >= b.deadline_ms ? 1 : static_cast<long>(b.deadline_ms - now);
}

// A failure of the link or a server that cannot serve now; refusals (4xx,
// certificates, the receiver's own refusals) stay failures.
bool transient(const install_ctx* ctx, CURLcode r)
{
    switch (r) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return true;
    case CURLE_HTTP_RETURNED_ERROR: {
        long code = response_code(ctx);
        return code >= 500 && code <= 599;
    }
    default:
        return false;
    }
}

// The first byte not received yet: schemes that take ranges resume there
// (whatever range_mode says: a resume leaves nothing out); any other scheme
// starts again from byte 0.
bool resumable(const char* scheme)
{
    return range_scheme(scheme) || strcmp(scheme, "https") == 0;
}

void sleep_s(uint32_t seconds)
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += static_cast<time_t>(seconds);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

// After a failed request: true when it is to be made again, after the wait
// and with the receiver set to where the next request starts.
bool retry_after(install_ctx* ctx, CURLcode r, const char* scheme, const char* error_text,
                 transfer_budget* b)
{
    if (ctx->state == INSTALL_STATE_FAILED || !transient(ctx, r) || image_complete(ctx))
        return false;
    // -stream resumes only where the server answers ranges: a new start
    // would take back what was written.
    if (ctx->stream && ctx->range_mode != 1) return false;
    if (b->timeout_s > 0 && now_ms() >= b->deadline_ms) {
        b->expired = true;
        return false;
    }
    if (b->retry >= b->retries) return false;
    if (b->timeout_s > 0 && now_ms() + uint64_t{b->backoff_s} * 1000 >= b->deadline_ms) {
        b->expired = true;
        return false;
    }
    bool resume = resumable(scheme) || ctx->stream;
    uint64_t from = !resume ? 0 : ctx->stream ? ctx->stream->parser->position : ctx->buffer_fill;
    b->retry++;
    log_always(LOG_NOTICE,
               "install: curl returned: %i == %s; retry %d of %d in %u s from byte %llu\n",
               static_cast<int>(r), error_text, b->retry, b->retries, b->backoff_s,
               static_cast<unsigned long long>(from));
    sleep_s(b->backoff_s);
    b->backoff_s = b->backoff_s * 2 > MAX_BACKOFF_S ? MAX_BACKOFF_S : b->backoff_s * 2;
    if (!resume && ctx->buffer_fill > 0 && install_receive_restart(ctx) != 0) return false;
    return true;
}

// -stream: the next request asks for the bytes from the source's resume
// offset on (from byte 0 when the server does not answer ranges).
void stream_request(install_ctx* ctx)
{
    install_stream* s = ctx->stream;
    s->asked_from = ctx->range_mode == 1 ? s->resume_at : 0;
    s->answered = false;
    if (ctx->range_mode == 1)
        zb_snprintf(ctx->range, sizeof ctx->range, "%llu-", static_cast<unsigned long long>(s->asked_from));
}

// One request from resume_at, the receiver's byte range text set to match.
CURLcode perform_from(install_ctx* ctx, const char* source, const char* scheme, char* error_text,
                      const transfer_budget& b)
{
    CURL* curl = static_cast<CURL*>(ctx->curl);
    if (ctx->stream)
        stream_request(ctx);
    else if (ctx->resume_at > 0)
        zb_snprintf(ctx->range, sizeof ctx->range, "%u-", ctx->resume_at);
    api.easy_reset(curl);
    curl_setup(ctx, source, scheme, error_text);
    if (b.timeout_s > 0) api.easy_setopt(curl, CURLOPT_TIMEOUT_MS, time_left_ms(b));
    clear_header_text(ctx);
    ctx->answered = 0;
    return api.easy_perform(curl);
}

// Runs the transfer, restarting it behind every body the receiver skipped
// and, within the budget, after each failure of the link. The handle
// outlives error_text (it is cleaned up at the install's end), so it lets go
// of the buffer before returning.
CURLcode perform_with_restarts(install_ctx* ctx, const char* source, const char* scheme,
                               char* error_text, transfer_budget* b)
{
    CURL* curl = static_cast<CURL*>(ctx->curl);
    CURLcode r;
    for (;;) {
        r = perform_from(ctx, source, scheme, error_text, *b);
        if (r == CURLE_WRITE_ERROR && ctx->state == INSTALL_STATE_SKIP) {
            // A skip of the last body completes the image: there is nothing
            // behind it to ask for, and a server would only answer 416.
            if (image_complete(ctx)) {
                ctx->state = INSTALL_STATE_PARSING;
                r = CURLE_OK;
                break;
            }
        } else if (r == CURLE_OK || !retry_after(ctx, r, scheme, error_text, b)) {
            break;
        }
        if (!ctx->stream)
            ctx->resume_at = ctx->buffer_fill;
        else if (ctx->state != INSTALL_STATE_SKIP)  // a retry: from the first byte not yet here
            ctx->stream->resume_at = ctx->stream->parser->position;
    }
    // -stream: the receiver ended the transfer with all it wanted.
    if (r == CURLE_WRITE_ERROR && ctx->state == INSTALL_STATE_DONE) r = CURLE_OK;
    api.easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    return r;
}

// A fleet's own PKI: its CA certificates replace the system's store (the
// directory too, so that no other CA is trusted), and a client certificate
// with its key answers a server that asks for one.
void tls_setup(CURL* curl, const kor_options* o)
{
    if (o->cacert[0] != '\0') {
        api.easy_setopt(curl, CURLOPT_CAINFO, o->cacert);
        api.easy_setopt(curl, CURLOPT_CAPATH, nullptr);
    }
    if (o->cert[0] != '\0') api.easy_setopt(curl, CURLOPT_SSLCERT, o->cert);
    if (o->key[0] != '\0') api.easy_setopt(curl, CURLOPT_SSLKEY, o->key);
}

}  // namespace

int transfer_url(install_ctx* ctx, hostconfig* hc, const char* source, const char* scheme)
{
    KOR_ASSERT("kor", ctx != nullptr && ctx->options != nullptr);
    KOR_ASSERT("kor", source != nullptr && scheme != nullptr);
    char error_text[CURL_ERROR_SIZE] = {};

    ctx->next_element = -1;
    // -stream: the caller set up the held area and the parser.
    int status = ctx->stream ? 0 : url_buffer_setup(ctx);
    if (status == 0) status = curl_handle_setup(ctx);
    if (status != 0) return status;
    clear_header_text(ctx);
    ctx->range_mode = 0;

    if (ranges_wanted(ctx, scheme)) {
        ctx->range_mode = 1;
        snprintf(ctx->range, sizeof ctx->range, "%d-", 0);
    }
    ctx->http = strcmp(scheme, "http") == 0 || strcmp(scheme, "https") == 0;

    transfer_budget budget = budget_of(ctx->options);
    CURLcode r = perform_with_restarts(ctx, source, scheme, error_text, &budget);
    auto post_dl = kor_hooks_get()->install_post_dl;
    if (r != CURLE_OK) {
        // A refusal by the signature check was logged when it happened: the
        // transfer error it caused says nothing more.
        const int refused = install_signature_status(ctx);
        if (refused == 0)
            log_console(LOG_ERR, "curl returned: %i == %s\n", static_cast<int>(r), error_text);
        if (refused == 0 && budget.expired)
            log_console(LOG_ERR, "install: the download did not end within -timeout=%u seconds\n",
                        budget.timeout_s);
        if (post_dl != nullptr) (void)post_dl(ctx, hc, static_cast<int>(r), error_text);
        if (refused != 0) return refused;
        return ctx->stream && ctx->stream->failure != 0 ? ctx->stream->failure : 16;
    }
    if (post_dl != nullptr) {
        int h = post_dl(ctx, hc, 0, error_text);
        if (h != 0) return h;
    }
    if (!image_complete(ctx)) {
        log_console(LOG_ERR, "install: incomplete VELK\n");
        return 9;
    }
    return 0;
}

int stream_read_url(install_ctx* ctx)
{
    install_stream* s = ctx->stream;
    char error_text[CURL_ERROR_SIZE] = {};
    clear_header_text(ctx);
    transfer_budget budget = budget_of(ctx->options);
    CURLcode r = perform_with_restarts(ctx, s->source, s->scheme, error_text, &budget);
    if (r == CURLE_OK) return 0;
    const int refused = install_signature_status(ctx);
    if (refused != 0) return refused;
    log_console(LOG_ERR, "curl returned: %i == %s\n", static_cast<int>(r), error_text);
    if (budget.expired)
        log_console(LOG_ERR, "install: the download did not end within -timeout=%u seconds\n",
                    budget.timeout_s);
    return s->failure != 0 ? s->failure : 16;
}

void curl_release(install_ctx* ctx)
{
    if (ctx->curl == nullptr) return;
    api.easy_cleanup(static_cast<CURL*>(ctx->curl));
    api.global_cleanup();
    ctx->curl = nullptr;
}

void curl_setup(install_ctx* ctx, const char* url, const char* scheme, char* error_text)
{
    KOR_ASSERT("kor", ctx != nullptr && url != nullptr);
    KOR_ASSERT("kor", scheme != nullptr && error_text != nullptr);
    CURL* curl = static_cast<CURL*>(ctx->curl);
    api.easy_setopt(curl, CURLOPT_WRITEFUNCTION, receive_fwd);
    api.easy_setopt(curl, CURLOPT_WRITEDATA, ctx);
    api.easy_setopt(curl, CURLOPT_URL, url);
    api.easy_setopt(curl, CURLOPT_ERRORBUFFER, error_text);
    api.easy_setopt(curl, CURLOPT_SOCKOPTDATA, ctx);
    api.easy_setopt(curl, CURLOPT_SOCKOPTFUNCTION, sockopt_fwd);
    api.easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, CONNECT_TIMEOUT_S);
    api.easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, LOW_SPEED_LIMIT_BPS);
    api.easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, LOW_SPEED_TIME_S);
    if (strcmp(scheme, "http") == 0 || (ctx->stream && strcmp(scheme, "https") == 0)) {
        api.easy_setopt(curl, CURLOPT_HEADERFUNCTION, http_header_callback);
        api.easy_setopt(curl, CURLOPT_HEADERDATA, ctx);
    } else if (strcmp(scheme, "ftp") == 0) {
        api.easy_setopt(curl, CURLOPT_HEADERFUNCTION, ftp_header_callback);
        api.easy_setopt(curl, CURLOPT_HEADERDATA, ctx);
    }
    if (ctx->range_mode != 0 || ctx->resume_at > 0)
        api.easy_setopt(curl, CURLOPT_RANGE, ctx->range);
    tls_setup(curl, ctx->options);
    // An error page is not an image: a server's 4xx/5xx answer ends the
    // transfer with libcurl's own text instead of reaching the parser.
    api.easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    // Larger reads than libcurl's 16 KiB default: a quarter of the calls
    // into the receiver and the kernel for the same image.
    api.easy_setopt(curl, CURLOPT_BUFFERSIZE, 256L * 1024);
}

size_t http_header_callback(char* data, size_t size, size_t count, void* ctx)
{
    if (data == nullptr) return 0;
    auto* c = static_cast<install_ctx*>(ctx);
    const uint32_t at = c->header_fill;
    size_t n = store_header_line(c, data, size * count);
    if (n != size * count || refuse_redirect(c, c->header_text + at)) return 0;
    check_content_range(c);
    return n;
}

size_t ftp_header_callback(char* data, size_t size, size_t count, void* ctx)
{
    if (data == nullptr) return 0;
    return store_header_line(static_cast<install_ctx*>(ctx), data, size * count);
}

int sockopt_callback(void* ctx, int socket, int purpose)
{
    (void)purpose;
    const auto* c = static_cast<const install_ctx*>(ctx);
    const timeval timeout{SOCKET_TIMEOUT_S, 0};
    if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
        setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
        log_console(LOG_ERR, "setsockopt SO_RCVTIMEO/SO_SNDTIMEO failed: %s", strerror(errno));
        return CURL_SOCKOPT_ERROR;
    }
    if (c->options->iptos_set == 1) {
        const int tos = c->options->iptos;
        if (setsockopt(socket, IPPROTO_IP, IP_TOS, &tos, sizeof tos) != 0) {
            log_console(LOG_ERR, "setsockopt failed: %s", strerror(errno));
            return CURL_SOCKOPT_ERROR;
        }
    }
    return CURL_SOCKOPT_OK;
}
