#pragma once

/// @file
/// What makes a test program fail to link if zor::testing is left out, and makes the linker take
/// zor::testing's `main()` wherever in the order of libraries it stands.

/// Defined next to `main()`. Whoever refers to it gets both from the archive.
extern "C" void zor_testing_is_not_linked_link_with_zor_testing();

namespace zor::testing::internal {

/// One reference for each source that includes a header of the library.
[[gnu::used]] static void (*const linkedWith)() = &zor_testing_is_not_linked_link_with_zor_testing;

} // namespace zor::testing::internal
