// Races that the thread sanitizer must not report. Texts of the configuration record are copied
// without a lock, by design: a reader may see a text half changed, but it always ends within its
// field, and the next read gets all of it. What is behind standard error runs under that stream's
// own lock, which is inside the C library, where the sanitizer does not see it. Shared memory is
// mapped in place while other threads use it: the kernel lets each access find either mapping. In
// the unit tests of that (SharedObject) the sanitizer now and then cannot name the mapping
// function.

extern "C" const char *__tsan_default_suppressions(); // NOLINT: the sanitizer's name

extern "C" const char *__tsan_default_suppressions() { // NOLINT
    return "race:copy_text\nrace:put_in_sink\nrace:map_shared_memory\nrace:handle_bus_error\n"
           "race:SharedObject_\n";
}
