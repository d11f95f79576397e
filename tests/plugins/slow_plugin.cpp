// Test plugin: keeps an action running long enough for tests to send it
// signals. kor_activate_hook_post marks its start in the file named by
// KOR_TEST_SLOW_MARK, then sleeps KOR_TEST_SLOW_MS milliseconds (1500 by
// default), resuming after every interruption.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <time.h>

struct korl_data;
struct hostconfig;

extern "C" int kor_activate_hook_post(korl_data*, hostconfig*)
{
    const char* mark = std::getenv("KOR_TEST_SLOW_MARK");
    if (mark) {
        if (FILE* f = std::fopen(mark, "w")) std::fclose(f);
    }
    const char* ms_text = std::getenv("KOR_TEST_SLOW_MS");
    long ms = ms_text ? std::atol(ms_text) : 1500;
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += ms / 1000;
    until.tv_nsec += (ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_sec++;
        until.tv_nsec -= 1000000000L;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
    return 0;
}
