#pragma once

/// Whether a sanitizer watches this program, and the others of its build.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_INSTRUMENTED = true;
#elif defined(__has_feature)
constexpr bool IS_INSTRUMENTED = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool IS_INSTRUMENTED = false;
#endif

/// Whether that is ThreadSanitizer.
#if defined(__SANITIZE_THREAD__)
constexpr bool IS_THREAD_INSTRUMENTED = true;
#elif defined(__has_feature)
constexpr bool IS_THREAD_INSTRUMENTED = __has_feature(thread_sanitizer);
#else
constexpr bool IS_THREAD_INSTRUMENTED = false;
#endif
