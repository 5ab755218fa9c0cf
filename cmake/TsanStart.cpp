// Starts ThreadSanitizer before any shared library's constructor runs. Its runtime is a shared library here, so that
// the tests' --wrap does not reach into it; by itself it would start after libraries that already allocate.
extern "C" void __tsan_init();

namespace {
[[gnu::section(".preinit_array"), gnu::used]] void (*const g_start)() = &__tsan_init;
} // namespace
