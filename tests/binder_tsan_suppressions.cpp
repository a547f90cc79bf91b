// ThreadSanitizer suppressions for the programs that run the host binder
// runtime. libutils (RefBase) is not instrumented: the atomic reference
// counts that order an object's last use on one thread before its
// destruction on another are invisible to the sanitizer, so each such hand-off
// is reported as a race in the destructor. Only stacks through RefBase's own
// release paths are suppressed.
//
// Exported: the sanitizer runtime looks the hook up dynamically.
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
    return "race:android::RefBase::decStrong\n"
           "race:android::RefBase::weakref_type::decWeak\n"
           "race:android::SharedBuffer::release\n";
}
