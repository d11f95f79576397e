// Console output, logging and assertions.
#include "base/console.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <signal.h>
#include <unistd.h>

#include "base/progress.h"

namespace {

constexpr uint32_t kMessageSize = 320;
constexpr uint32_t kConsoleSize = 80;

// Only the outermost region is noted, so a save inside an install adds no
// notices of its own.
int g_critical_depth = 0;

// Signals noted by the worker's handler, by number.
constexpr int kSignals = 65;
volatile sig_atomic_t g_pending[kSignals];

void log_message(int priority, bool always, const char* format, va_list ap)
{
    kor_log_pending_signals();
    char text[kMessageSize];
    zb_vsnprintf(text, sizeof text, format, ap);
    progress_clear();
    std::fputs(text, stderr);
    if (always || !isatty(1)) syslog(priority, "%s", text);
}

}  // namespace

void kor_defer_signal(int signo)
{
    if (signo > 0 && signo < kSignals) g_pending[signo] = 1;
}

void kor_log_pending_signals()
{
    for (int s = 1; s < kSignals; s++) {
        if (!g_pending[s]) continue;
        g_pending[s] = 0;
        log_console(LOG_INFO, "%s: Got signal #%i\n", "child", s);
    }
}

void log_console(int priority, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    log_message(priority, false, format, ap);
    va_end(ap);
}

void log_always(int priority, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    log_message(priority, true, format, ap);
    va_end(ap);
}

void critical_enter(const char* format, ...)
{
    g_critical_depth++;
    if (g_critical_depth <= 1) {
        va_list ap;
        va_start(ap, format);
        vsyslog(LOG_NOTICE, format, ap);
        va_end(ap);
    }
}

void critical_leave(const char* format, ...)
{
    if (g_critical_depth == 1) {
        va_list ap;
        va_start(ap, format);
        vsyslog(LOG_NOTICE, format, ap);
        va_end(ap);
    }
    g_critical_depth--;
}

int critical_depth() { return g_critical_depth; }

int32_t zb_console_puts(const char* text)
{
    progress_clear();
    size_t len = std::strlen(text);
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(1, text + done, len - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<int32_t>(done);
}

int32_t zb_console_vprintf(const char* format, va_list ap)
{
    char text[kConsoleSize];
    int32_t n = zb_vsnprintf(text, sizeof text, format, ap);
    zb_console_puts(text);
    return n;
}

int32_t zb_console_printf(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int32_t n = zb_console_vprintf(format, ap);
    va_end(ap);
    return n;
}

int32_t zb_vsnprintf(char* buf, uint32_t size, const char* format, va_list ap)
{
    if (size == 0) return 0;
    int n = std::vsnprintf(buf, size, format, ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    if (static_cast<uint32_t>(n) >= size) return static_cast<int32_t>(size - 1);
    return n;
}

int32_t zb_snprintf(char* buf, uint32_t size, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int32_t n = zb_vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

int32_t zb_vprintf(const char* format, va_list ap)
{
    progress_clear();
    int n = std::vfprintf(stdout, format, ap);
    std::fflush(stdout);
    return n;
}

int32_t zb_printf(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int32_t n = zb_vprintf(format, ap);
    va_end(ap);
    return n;
}

int32_t zb_puts(const char* text)
{
    progress_clear();
    int n = std::fputs(text, stdout);
    std::fflush(stdout);
    return n;
}

void zb_panic(const char* format, ...)
{
    std::fflush(stdout);  // keep earlier report text ahead of the panic line
    zb_console_printf("Panic: ");
    va_list ap;
    va_start(ap, format);
    zb_console_vprintf(format, ap);
    va_end(ap);
    zb_abort();
}

void zb_abort() { std::abort(); }

void zb_set_sig_handler(int signo, void (*handler)(int))
{
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(signo, &sa, nullptr) != 0)
        zb_panic("Signal %d handler install failed (%s)\n", signo, std::strerror(errno));
}

void os_sys_init() {}

uint32_t kor_field_copy(char* field, uint32_t size, const char* text)
{
    uint32_t n = 0;
    if (text)
        while (n < size && text[n] != '\0') n++;
    std::memcpy(field, text ? text : "", n);
    std::memset(field + n, 0, size - n);
    return n;
}

uint32_t kor_str_copy(char* dst, uint32_t size, const char* text)
{
    if (size == 0) return 0;
    uint32_t n = kor_field_copy(dst, size - 1, text);
    dst[size - 1] = '\0';
    return n;
}
