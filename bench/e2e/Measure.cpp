#include "Measure.h"

#include <sys/resource.h>
#include <time.h>

#include <cerrno>
#include <cmath>

namespace e2e {

bool Semaphore::waitFor(double seconds) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    double whole = std::floor(seconds);
    deadline.tv_sec += static_cast<time_t>(whole);
    deadline.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    for (;;) {
        if (sem_clockwait(&sem_, CLOCK_MONOTONIC, &deadline) == 0) return true;
        if (errno != EINTR) return false;
    }
}

Usage Usage::now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    Usage result;
    result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    result.voluntarySwitches = usage.ru_nvcsw;
    return result;
}

}  // namespace e2e
