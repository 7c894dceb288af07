// A library for LD_PRELOAD: it moves the clocks of a program while the program runs. The file that
// GRIPPERD_CLOCK_SHIFT names has two numbers of 64 bits: the seconds by which the monotonic clock
// and the wall clock are ahead.
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Shift
{
    std::int64_t monotonicSeconds;
    std::int64_t wallSeconds;
};

const Shift *openShift()
{
    const int file = open(std::getenv("GRIPPERD_CLOCK_SHIFT"), O_RDONLY | O_CLOEXEC);
    void *memory = mmap(nullptr, sizeof(Shift), PROT_READ, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED)
        std::abort();
    close(file);
    return static_cast<const Shift *>(memory);
}

std::int64_t secondsAhead(clockid_t clock)
{
    static const Shift *const shift = openShift();
    const auto &seconds = clock == CLOCK_MONOTONIC ? shift->monotonicSeconds : shift->wallSeconds;
    const bool isShifted = clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME;
    return isShifted ? __atomic_load_n(&seconds, __ATOMIC_RELAXED) : 0;
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *time)
{
    if (syscall(SYS_clock_gettime, clock, time) != 0)
        return -1;
    time->tv_sec += secondsAhead(clock);
    return 0;
}

/// The kernel waits until a time of its own clock.
extern "C" int pthread_cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                      clockid_t clock, const timespec *time)
{
    using Wait = int (*)(pthread_cond_t *, pthread_mutex_t *, clockid_t, const timespec *);
    static const auto wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    timespec end = *time;
    end.tv_sec -= secondsAhead(clock);
    return wait(condition, mutex, clock, &end);
}
