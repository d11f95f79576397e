// Test plugin: keeps an action running so that tests can signal it. The activate hook creates the
// file named by KOR_TEST_SLOW_MARK, then sleeps KOR_TEST_SLOW_MS milliseconds (default 1500),
// resuming after every interruption.
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

struct korl_data;
struct hostconfig;

extern "C" int kor_activate_hook_post(korl_data*, hostconfig*)
{
    const char *mark = std::getenv("KOR_TEST_SLOW_MARK"), *ms_text = std::getenv("KOR_TEST_SLOW_MS");
    if (FILE* f = mark ? std::fopen(mark, "w") : nullptr) std::fclose(f);
    const long ms = ms_text ? std::atol(ms_text) : 1500;
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const long ns = until.tv_nsec + ms % 1000 * 1000000L;
    until.tv_sec += ms / 1000 + ns / 1000000000L, until.tv_nsec = ns % 1000000000L;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
    return 0;
}
