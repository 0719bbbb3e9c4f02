// What the platform's tools say alike: their version, words that they do not know, files that fail them.
#pragma once

#include <span>

inline constexpr int kExitFailed = 1;  // the platform refused or could not
inline constexpr int kExitUsage = 2;

/// Whether a command line is the one word --version; it is answered then.
[[nodiscard]] bool tool_answersVersion(const char *tool, int argc, char **argv);

/// Names a word that is none of those known, and the nearest of them, on standard error.
/// @param kind  what the word should have been, "command" for one; a word that begins with a dash is an
/// option.
/// @return kExitUsage.
int tool_wrongWord(const char *tool, const char *kind, const char *word, std::span<const char *const> known);

/// Says on standard error that a file cannot be read or written (what), and why.
/// @param reason  errno as the platform left it; 0: it said nothing. @return kExitFailed.
int tool_fileFailed(const char *tool, const char *path, const char *what, int reason);

/// Brings what was printed to standard output; says on standard error where that does not take it.
/// @param status  of the tool so far. @return it; kExitFailed instead of 0 where the output is lost.
int tool_ended(const char *tool, int status);
