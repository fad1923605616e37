// The thread sanitizer build (the tsan preset) sees cpp-httplib's worker threads, which serve the loopback
// server, but not the library's own code: Debian builds it without the sanitizer, so what it hands from one
// of its threads to another is unseen and its string copies and comparisons can read as races. Reports with
// a frame inside the library are suppressed; the session's threads never run its code.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }
