#ifndef ZOR_TESTS_SANITIZED_H
#define ZOR_TESTS_SANITIZED_H

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define ZOR_TEST_IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define ZOR_TEST_IS_SANITIZED 1
#endif
#endif

namespace zortest {

/// Divides the number of repetitions of a long test: instrumented or emulated, each costs ten times
/// as much.
#if defined(ZOR_TEST_IS_SANITIZED) || defined(ZOR_TEST_IS_EMULATED)
constexpr int SLOWER = 10;
#else
constexpr int SLOWER = 1;
#endif

} // namespace zortest

#endif
