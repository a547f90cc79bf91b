// ZemExec: zemd --exec: runs an integrator's program in a private mount
// namespace (and, without root, a private user namespace) in which the
// library's fixed socket path /dev/socket/olvand/spc is zemd's socket.
//
// The program's /dev is a fresh tmpfs holding bind mounts of every entry of
// the host's /dev plus /dev/socket/olvand/spc, bound to the socket zemd
// serves; nothing changes in the host's /dev, and the namespace goes away with
// the program. Without root this needs unprivileged user namespaces; start()
// then says which kernel setting is missing when the kernel refuses one.
//
//   zemtools::ZemExec exec;
//   std::string error;
//   if (!exec.start({"./my_client", "--flag"}, "/tmp/zemd.x/spc", "/tmp/zemd.x", &error)) ...
//   int status = exec.wait();   // the program's exit status, 128 + signal when killed
//
// Owned by zemd's main(). start() forks from the calling thread and makes only
// system calls between fork and exec; wait() and terminate() may be called
// from different threads.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

namespace zemtools {

class ZemExec {
  public:
    // Starts `argv` (argv[0] searched in PATH) with /dev/socket/olvand/spc
    // bound to `socketPath`; `workDir` is an empty folder of zemd's own for
    // the namespace's mount points. False with a message in `error` when the
    // namespace cannot be made or the program cannot be run; `exitStatus`
    // then tells how zemd should exit (126: no namespace, 127: no program).
    bool start(const std::vector<std::string>& argv, const std::string& socketPath,
               const std::string& workDir, std::string* error, int* exitStatus);

    // Waits for the program; its exit status, or 128 + the signal that ended it.
    int wait();

    // Asks the program to end (SIGTERM); after `graceMs` without it ending,
    // kills it.
    void terminate(int graceMs);

    pid_t pid() const { return child; }

  private:
    pid_t child = -1;
    std::atomic<bool> reaped{false};
};

}  // namespace zemtools
