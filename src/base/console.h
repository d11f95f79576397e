// Messages, critical-region markers, report output and assertions.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <syslog.h>

#define KOR_PRINTF(f, a) __attribute__((format(printf, f, a)))

// Message to stderr; also to syslog when stdout is not a terminal.
void log_console(int priority, const char* format, ...) KOR_PRINTF(2, 3);
// Message to stderr and always to syslog.
void log_always(int priority, const char* format, ...) KOR_PRINTF(2, 3);

// Outermost entry/exit of a critical region is noted in syslog.
void critical_enter(const char* format, ...) KOR_PRINTF(1, 2);
void critical_leave(const char* format, ...) KOR_PRINTF(1, 2);
int critical_depth();

// Signals the worker caught are logged from its normal flow, not from the
// handler: the worker may be inside stdio or syslog when one arrives.
// kor_defer_signal only notes the signal (async-signal-safe); every message
// and the worker's end log the noted ones.
void kor_defer_signal(int signo);
void kor_log_pending_signals();

int32_t zb_console_puts(const char* text);
int32_t zb_console_vprintf(const char* format, va_list ap) KOR_PRINTF(1, 0);
int32_t zb_console_printf(const char* format, ...) KOR_PRINTF(1, 2);
int32_t zb_vsnprintf(char* buf, uint32_t size, const char* format, va_list ap) KOR_PRINTF(3, 0);
int32_t zb_snprintf(char* buf, uint32_t size, const char* format, ...) KOR_PRINTF(3, 4);
int32_t zb_vprintf(const char* format, va_list ap) KOR_PRINTF(1, 0);
int32_t zb_printf(const char* format, ...) KOR_PRINTF(1, 2);
int32_t zb_puts(const char* text);
[[noreturn]] void zb_panic(const char* format, ...) KOR_PRINTF(1, 2);
[[noreturn]] void zb_abort();
void zb_set_sig_handler(int signo, void (*handler)(int));
void os_sys_init();

// Precondition check: prints "Panic: *** ASSERT in MODULE at LINE" on stdout
// and aborts. MODULE is the short module name used in the field logs.
#define KOR_ASSERT(module, cond)                                        \
    do {                                                                \
        if (!(cond)) zb_panic("*** ASSERT in %s at %d\n", module, __LINE__); \
    } while (0)

// Bounded copy of a NUL-terminated text into a fixed field of `size` bytes.
// The field is zero-padded; a text of `size` characters fills it without a
// terminating NUL (the layout of the stored name fields). Returns the number
// of characters copied.
uint32_t kor_field_copy(char* field, uint32_t size, const char* text);
// Like kor_field_copy, but reserves the last byte for a NUL.
uint32_t kor_str_copy(char* dst, uint32_t size, const char* text);
