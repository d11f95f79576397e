// The progress line on a terminal's standard error.
#include "base/progress.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "base/console.h"

namespace {

constexpr uint64_t REDRAW_MS = 250;
constexpr uint32_t LINE_SIZE = 80;  // the text stays within a standard terminal line
constexpr const char* ERASE = "\r\033[K";

// One terminal, one line: what is on it now.
struct terminal_line {
    bool on;     // a step runs and standard error is a terminal
    bool shown;  // the line is on the screen
    uint64_t start_ms;
    uint64_t drawn_ms;
    const char* part;  // what the line shows: drawn again at once when these change
    int32_t skips;
};
terminal_line g_line;

uint64_t now_ms()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000 + static_cast<uint64_t>(t.tv_nsec) / 1000000;
}

void put(const char* text, uint32_t n)
{
    while (n > 0) {
        ssize_t w = ::write(2, text, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return;  // a terminal that takes nothing gets no line
        text += w;
        n -= static_cast<uint32_t>(w);
    }
}

constexpr double MIB = 1024.0 * 1024.0;

}  // namespace

uint32_t progress_format(char* line, uint32_t size, const progress_state& s, uint64_t elapsed_ms)
{
    char percent[8] = " --%";
    if (s.total > 0) {
        uint64_t p = s.position >= s.total ? 100 : s.position * 100 / s.total;
        zb_snprintf(percent, sizeof percent, "%3u%%", static_cast<unsigned>(p));
    }
    // Over the first moments the rate says more about the clock than the link.
    char rate[16] = "     --";
    if (elapsed_ms >= REDRAW_MS)
        zb_snprintf(rate, sizeof rate, "%7.2f",
                    static_cast<double>(s.bytes) * 1000.0 / MIB / static_cast<double>(elapsed_ms));
    int n = zb_snprintf(line, size, "%s %8.1f MiB %s MiB/s", percent,
                        static_cast<double>(s.bytes) / MIB, rate);
    if (s.part != nullptr && s.part_size > 0 && s.part[0] != '\0')
        n += zb_snprintf(line + n, size - static_cast<uint32_t>(n), "  part %.*s",
                         static_cast<int>(s.part_size), s.part);
    if (s.skips > 0)
        n += zb_snprintf(line + n, size - static_cast<uint32_t>(n), "  skipped %d", s.skips);
    return static_cast<uint32_t>(n);
}

void progress_start()
{
    g_line = terminal_line{};
    g_line.on = isatty(2) == 1;
    g_line.start_ms = now_ms();
}

void progress_update(const progress_state& s)
{
    if (!g_line.on) return;
    uint64_t t = now_ms();
    bool news = s.part != g_line.part || s.skips != g_line.skips;
    if (g_line.shown && !news && t - g_line.drawn_ms < REDRAW_MS) return;
    char text[LINE_SIZE + 8];
    uint32_t n = kor_str_copy(text, sizeof text, ERASE);
    n += progress_format(text + n, LINE_SIZE, s, t - g_line.start_ms);
    put(text, n);
    g_line.shown = true;
    g_line.drawn_ms = t;
    g_line.part = s.part;
    g_line.skips = s.skips;
}

void progress_clear()
{
    if (!g_line.shown) return;
    put(ERASE, 4);
    g_line.shown = false;
}

void progress_end()
{
    progress_clear();
    g_line.on = false;
}
