// The signals whose handlers take the instance down, kept away for a while.
#pragma once

#include <csignal>

/// Keeps SIGPIPE, SIGINT and SIGTERM from this thread for the length of its scope. Whoever holds a
/// lock of the instance outside the library's own threads holds one of these around it: a handler
/// would wait for that lock for ever.
class SignalsBlocked {
public:
    SignalsBlocked();
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;
    ~SignalsBlocked();

private:
    sigset_t before_{};
};
