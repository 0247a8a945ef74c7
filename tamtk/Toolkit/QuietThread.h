#pragma once

#include <pthread.h>
#include <signal.h>

#include <thread>
#include <utility>

namespace Tamtk {

// A thread that takes no process signal: a host that waits for input
// expects its signals on its own threads, where they break off the wait.
// The thread starts with every signal blocked.
template <typename Body>
std::thread quietThread(Body body) {
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return thread;
}

}  // namespace Tamtk
