#include "cloud_signals.h"

#include <pthread.h>

namespace {

void _add_signals(sigset_t *set) {
    sigemptyset(set);
    sigaddset(set, SIGPIPE);
    sigaddset(set, SIGINT);
    sigaddset(set, SIGTERM);
}

}  // namespace

SignalsBlocked::SignalsBlocked() {
    sigset_t set;
    _add_signals(&set);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}
