#include "shared/lock.hpp"

#include "shared/process_state.hpp"

#include <cstdio>
#include <cstdlib>
#include <sys/file.h>

int tarvo_lock() {
    const int result = flock(lock_fd, LOCK_EX);
    if (result != 0) {
        perror("tarvo: failed to accquire lock");
    }
    return result;
}

int tarvo_unlock() {
    const int result = flock(lock_fd, LOCK_UN);
    if (result != 0) {
        perror("tarvo: failed to release lock");
        abort();
    }
    return result;
}
