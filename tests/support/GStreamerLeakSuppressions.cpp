// The leak check of the address sanitizer build (the asan preset) reports memory that libraries below
// GStreamer keep for the life of the process on purpose. Suppressed by where it was allocated, narrowly:
// nothing of ours, GStreamer's or Qt's is.

// Whole allocation stacks: GLib and its neighbours have no frame pointers, so the fast unwinder stops inside
// them and could tell neither what to suppress nor which of our calls leaked through them.
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" const char* __lsan_default_suppressions() {
  return
      // fontconfig's pattern and font caches, filled when pango draws the synthetic camera's clock
      "leak:libfontconfig.so\n"
      // what shared-library initialisers allocate once when the library loads (GLib's first quark table,
      // which it leaves behind on purpose when the table grows)
      "leak:_dl_init\n";
}
