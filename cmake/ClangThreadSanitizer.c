// Sets up the thread sanitizer of a program before anything else runs in it.
extern void __tsan_init(void);

__attribute__((section(".preinit_array"), used)) static void (*const setUp)(void) = __tsan_init;
