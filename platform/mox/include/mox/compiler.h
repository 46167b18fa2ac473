/* Compiler-specific bits of the runtime, kept in one place. */
#ifndef MOX_COMPILER_H
#define MOX_COMPILER_H

#ifdef __cplusplus
#define MOX_EXTERN_C_BEGIN extern "C" {
#define MOX_EXTERN_C_END }
#else
#define MOX_EXTERN_C_BEGIN
#define MOX_EXTERN_C_END
#endif

#if defined(__GNUC__) || defined(__clang__)
#define MOX_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#define MOX_NORETURN __attribute__((noreturn))
#define MOX_NOINLINE __attribute__((noinline))
#else
#define MOX_PRINTF(fmt_index, first_arg)
#define MOX_NORETURN
#define MOX_NOINLINE
#endif

/* Sanitizer builds need to be told about coroutine stack switches. */
#if defined(__SANITIZE_ADDRESS__)
#define MOX_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MOX_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define MOX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MOX_TSAN 1
#endif
#endif

#endif
