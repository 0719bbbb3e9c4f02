// Records a broker that the command itself starts in the device: kxcc-tap stands between it and its clients,
// and the journal gets its records. The tap waits until there is such a broker, and takes each one that
// starts.
#pragma once

#include <sys/types.h>

#include <thread>

#include "descriptor.h"
#include "journal.h"

namespace emulator {

class ForeignBroker {
public:
    /// Returns when the tap watches for the broker's socket. Without a kxcc-tap in PATH this writes a line to
    /// standard error, and the journal gets nothing. The journal must outlive it.
    /// @throws std::system_error  no pipe.
    explicit ForeignBroker(Journal &journal);
    ~ForeignBroker();  ///< Gives the broker its socket back; the journal has all that was said before.
    ForeignBroker(const ForeignBroker &) = delete;
    ForeignBroker &operator=(const ForeignBroker &) = delete;

private:
    pid_t pid_ = -1;
    Descriptor messages_;  // of the tap, for people
    std::thread reader_;
};

}  // namespace emulator
