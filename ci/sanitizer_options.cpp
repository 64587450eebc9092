// What the sanitizers are to do, compiled in: the daemon starts with an empty environment.

extern "C" {

const char* __asan_default_options() {
  return "detect_stack_use_after_return=1:allocator_may_return_null=1";
}

// GLib's locks are not built for the thread sanitizer, which then sees races in all that they guard.
const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\ncalled_from_lib:libgobject-2.0.so\ncalled_from_lib:libgio-2.0.so\n";
}

}  // extern "C"
