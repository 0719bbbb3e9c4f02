// Small state files in the RAM disk, replaced as a whole: a reader, and the next run after a kill or with
// a full RAM disk, sees the old content or the new, never a half or none.
#pragma once

#include <string_view>

enum ReplaceResult {
    kReplaced = 0,
    kReplaceOpenFailed = -1,   // no file could be made
    kReplaceWriteFailed = -2,  // no room, or the file cannot be put in place
};

/// Gives a file new content: written beside ("<path>.<process id>") and renamed over it, with the mode and
/// the owner of the old one (0644 when there is none). Without room for a second file the old one is
/// overwritten, if the text fits into what it occupies already. Two processes may do so at once; the later
/// one wins.
/// @param path    at most 255 characters.
/// @return a ReplaceResult; on failure the old content stays. Nothing is logged.
[[nodiscard]] ReplaceResult cloud_replaceFile(const char *path, std::string_view text);
