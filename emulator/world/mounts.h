// Mounts of the device's own namespace.
#pragma once

#include <functional>
#include <string>

#include "descriptor.h"

namespace emulator {

/// mount(2). @throws std::system_error  with the target in its text.
void mount_at(const char *source, const std::string &target, const char *type, unsigned long flags,
              const char *options = nullptr);

/// A file or folder of the host, opened while it can still be seen, to be shown elsewhere.
class HostPath {
public:
    explicit HostPath(const std::string &path);
    [[nodiscard]] bool ok() const { return fd_.ok(); }
    /// Makes target when it is missing, and mounts this there.
    void show_at(const std::string &target) const;

private:
    Descriptor fd_;
};

/// Makes the root of this namespace a copy of the host's mounts. A file that is open for writing in the
/// host's own (the journal) would keep that from becoming read-only.
void leave_host_mounts();

/// Makes every mount read-only but those whose place is the device's own.
/// By one call a mount, which every kernel and valgrind know.
void seal_mounts(const std::function<bool(const std::string &place)> &isOwn);

}  // namespace emulator
