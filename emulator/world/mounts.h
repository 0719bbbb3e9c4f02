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
    /// ok() tells whether it opened.
    explicit HostPath(const std::string &path);
    [[nodiscard]] bool ok() const { return fd_.ok(); }
    /// Makes target when it is missing, and mounts this there.
    /// @throws std::system_error  it cannot be made or mounted.
    void show_at(const std::string &target) const;

private:
    Descriptor fd_;
};

/// Makes the root of this namespace a copy of the host's mounts. A file that is open for writing in the
/// host's own mounts (the journal) would keep those from becoming read-only.
/// @throws std::system_error
void leave_host_mounts();

/// Makes every mount read-only but those whose place is the device's own, and those that cannot be reached
/// (below another mount, or in a folder that this user may not enter). Uses mount(2) for each one, since
/// older kernels and valgrind lack mount_setattr(2).
/// @throws std::system_error  one stays writable.
void seal_mounts(const std::function<bool(const std::string &place)> &isOwn);

}  // namespace emulator
