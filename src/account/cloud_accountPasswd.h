// The device's local password file, "/tmp/passwd": one "<name>:..." line a user.
#pragma once

namespace cloud_account {

/// Removes the lines of a user. What stands in front of a line's first ':' is compared as it is with the
/// lower-cased name, as a whole; lines without ':' stay. A file that cannot be read or written stays as it is
/// (logged, unless there is none).
/// Contract: so a line whose name has capitals stays.
/// @param user  at most 128 characters of it count; an empty name removes nothing.
void _remove_passwd_user(const char *user);

}  // namespace cloud_account
