// The broker's socket, taken aside while the tap's stands in its place. The path is never without a
// socket: the broker's gets a second name, the tap's replaces it at the first by rename, and giving it back
// is one rename the other way. So whatever kills the tap, that rename (--restore) mends the device. For one
// thread.
#pragma once

#include <sys/stat.h>
#include <sys/un.h>

#include <string_view>

#include "cloud_owner.h"

class TapSocket {
public:
    /// @param path  the broker's; must have passed fits().
    explicit TapSocket(std::string_view path);
    [[nodiscard]] static bool fits(std::string_view path);

    enum class Taken { kYes, kNoSocket, kFailed };
    /// Puts an own socket in the broker's place, with the same mode and owner. A failure is told on standard
    /// error.
    [[nodiscard]] Taken take();

    /// Gives the place back, if it is still the own socket's: a broker that has put a new one there keeps it.
    void give_back();

    enum class Found { kOurs, kNothing, kBrokers, kOther };
    /// What stands at the path now; kBrokers is the one that was taken aside.
    [[nodiscard]] Found look() const;

    /// Connects to the broker, wherever its socket stands, without waiting.
    /// @return the descriptor; not ok with errno (EAGAIN: its queue of clients is full).
    [[nodiscard]] UniqueFd connect_broker() const;

    [[nodiscard]] int listening() const { return listening_.get(); }
    [[nodiscard]] const char *path() const { return path_.sun_path; }

    enum class Mended { kYes, kNothing, kRunning, kFailed };
    /// Gives back what a killed tap has left; a tap that runs is left alone. Tells what it did on standard
    /// error.
    [[nodiscard]] Mended mend() const;

private:
    [[nodiscard]] bool _listen(const struct stat &model);

    sockaddr_un path_{};
    sockaddr_un aside_{};
    sockaddr_un fresh_{};
    UniqueFd listening_;
    // Kept, so that no later socket can have the same number.
    UniqueFd own_;
    UniqueFd brokers_;
};
