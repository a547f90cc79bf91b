// ThreadSanitizer suppressions for test programs that run gRPC.
//
// The distribution's gRPC, its allocator (gpr) and abseil are not built with
// ThreadSanitizer, so the synchronisation inside them is invisible to it: a
// buffer that gRPC frees on one thread and hands out again on another, or an
// abseil mutex's deadlock graph, shows up as a race. Reports with one of
// those libraries on a stack are dropped; races between our own frames still
// count. Compiled into a program, this hook is read by the sanitizer runtime
// at start-up and does nothing in other builds.
// Exported: the runtime looks the hook up dynamically.
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
    return "race:libgrpc.so\n"
           "race:libgrpc++.so\n"
           "race:libgpr.so\n"
           "race:libabsl_\n"
           "race:grpc_core::\n"
           "race:grpc::internal::\n"
           "called_from_lib:libgrpc.so\n"
           "called_from_lib:libgpr.so\n"
           "called_from_lib:libabsl_synchronization.so\n"
           "called_from_lib:libabsl_graphcycles_internal.so\n";
}
