// Process supervision: the two-process start and the parent's wait.
//
// The parent only waits and turns the worker's end into the exit status; the
// worker runs in a process group of its own, so a terminal's interrupt or
// hang-up reaches neither the update nor, beyond a log line, the parent.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/console.h"
#include "cli/cli.h"

namespace {

// -1 before the fork, 0 parent, 1 worker. Only the signal handler reads it.
volatile sig_atomic_t g_role = -1;

const int kCaught[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

const char* role_word(int role)
{
    if (role == 0) return "parent";
    if (role == 1) return "child";
    return "yet unknown if child";
}

void log_signal(int signo)
{
    // The parent does nothing but wait(), so logging right here cannot
    // interrupt a stream or syslog call of its own.
    if (g_role == 1) {
        kor_defer_signal(signo);
        return;
    }
    int saved = errno;
    log_console(LOG_INFO, "%s: Got signal #%i\n", role_word(g_role), signo);
    errno = saved;
}

int catch_signal(int signo, const struct sigaction* sa, sigset_t* unblock)
{
    if (sigaction(signo, sa, nullptr) != 0) {
        log_console(LOG_ERR, "Could not catch signal #%d\n", signo);
        return 0;
    }
    sigaddset(unblock, signo);
    return 1;
}

int parent_wait()
{
    int status = 0;
    if (wait(&status) == -1) {
        log_always(LOG_CRIT, "wait() did not succeed\n");
        return 12;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) {
        int n = WTERMSIG(status);
        if (n >= 1 && n <= 64) {
            log_always(LOG_CRIT, "child terminated by signal #%i\n", n);
            return n + 63;
        }
        log_always(LOG_CRIT, "child terminated by unknown signal #%i\n", n);
        return 63;
    }
    log_always(LOG_CRIT, "child terminated for some unknown reason\n");
    return 13;
}

int worker(int argc, char** argv)
{
    pid_t group = getpgrp();
    if (group == -1) {
        log_console(LOG_ERR, "getpgrp() failed\n");
        return 3;
    }
    if (setpgid(0, 0) != 0) {
        log_console(LOG_ERR, "setpgid() failed\n");
        return 3;
    }
    if (getpgrp() == group) {
        log_console(LOG_ERR, "No new process group created?\n");
        return 3;
    }
    if (argc < 2) {
        log_console(LOG_ERR, "Syntax error, argc < 2\n");
        std::puts(kor_usage_text);
        return 1;
    }
    return kor_run(argc, argv);
}

}  // namespace

int kor_main(int argc, char** argv)
{
    openlog("KOR", LOG_NDELAY, LOG_USER);
    g_role = -1;

    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);

    struct sigaction sa {};
    sa.sa_handler = log_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigset_t unblock;
    sigemptyset(&unblock);
    for (int s : kCaught)
        if (!catch_signal(s, &sa, &unblock)) return 4;
    sigprocmask(SIG_UNBLOCK, &unblock, nullptr);

    // Each process takes its role before a caught signal can reach it: one
    // that arrives while the fork returns waits until the role is set, so
    // the parent never logs itself as not yet knowing what it is.
    sigprocmask(SIG_BLOCK, &unblock, nullptr);
    pid_t pid = fork();
    if (pid > 0) g_role = 0;
    if (pid == 0) g_role = 1;
    sigprocmask(SIG_UNBLOCK, &unblock, nullptr);
    if (pid < 0) {
        log_console(LOG_ERR, "Fork failed\n");
        return 1;
    }
    if (pid > 0) return parent_wait();
    int status = worker(argc, argv);
    kor_log_pending_signals();
    std::fflush(stdout);
    return status;
}
