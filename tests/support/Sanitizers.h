// Which sanitizer a test is built with, for what only costs time there.
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

} // namespace testing_support
