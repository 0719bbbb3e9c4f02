// The device's local password file, "/tmp/passwd": one "<name>:..." line a user.
#pragma once

namespace cloud_account {

/// Removes the lines of a user. Names in the file are compared with the lower-cased name, whole and
/// letter for letter, with what stands in front of a line's first ':'; lines without one stay. A file that
/// cannot be read or written stays as it is (logged, unless there is none).
/// @param user  at most 128 characters of it count; an empty name removes nothing.
void _remove_passwd_user(const char *user);

}  // namespace cloud_account
