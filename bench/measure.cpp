// Runs one program and writes what it took to an open descriptor, as one line of JSON.
//
//     measure DESCRIPTOR PROGRAM [ARGUMENT...]
//
// A process's peak memory begins with that of the program that started it (the kernel counts the image before exec as
// well), so a figure taken by an interpreter of 10 MB says little. This starter is small. Times are of CLOCK_MONOTONIC,
// in nanoseconds, and may be compared between processes. Ends as the program ended (128 + signal where it was killed);
// the program does not outlive it.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] void become(char** command, pid_t starter) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == starter) { // else it died before the line above
        execvp(command[0], command);
        std::perror(command[0]);
    }
    _exit(127);
}

} // namespace

int main(int argc, char** argv) {
    const int reportDescriptor = argc < 3 ? -1 : std::atoi(argv[1]);
    if (reportDescriptor <= STDERR_FILENO || fcntl(reportDescriptor, F_SETFD, FD_CLOEXEC) != 0) {
        std::fprintf(stderr, "usage: measure DESCRIPTOR PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    const pid_t self = getpid();
    const long long start = now();
    const pid_t child = fork();
    if (child == 0) {
        become(argv + 2, self);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        std::perror("measure");
        return 1;
    }
    const long long end = now();
    dprintf(reportDescriptor,
            "{\"start\": %lld, \"end\": %lld, \"user\": %.6f, \"system\": %.6f, \"peak_kib\": %ld, "
            "\"minor_faults\": %ld, \"waits\": %ld, \"preemptions\": %ld}\n",
            start, end, seconds(usage.ru_utime), seconds(usage.ru_stime), usage.ru_maxrss, usage.ru_minflt,
            usage.ru_nvcsw, usage.ru_nivcsw);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
