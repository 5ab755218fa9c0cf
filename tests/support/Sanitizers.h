// Which sanitizer a test is built with.
#pragma once

namespace testing_support {

/// Under ThreadSanitizer a process takes many times as long to start and to run.
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kIsThreadSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kIsThreadSanitized = __has_feature(thread_sanitizer);
#else
inline constexpr bool kIsThreadSanitized = false;
#endif

/// AddressSanitizer and ThreadSanitizer forbid core dumps before main: they would hold terabytes of shadow.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kIsSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kIsSanitized = false;
#endif

} // namespace testing_support
