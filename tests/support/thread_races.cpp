// What the thread sanitizer is not to report. Texts of the configuration record are copied without
// a lock, by design: who reads one meanwhile may see it half changed, but always ending in its
// field, and the next look finds it whole.

extern "C" const char *__tsan_default_suppressions(); // NOLINT: the sanitizer's name

extern "C" const char *__tsan_default_suppressions() { // NOLINT
    return "race:copy_text\n";
}
