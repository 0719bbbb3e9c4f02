// Firmware version texts: three numbers, a blank, and a tail with "Build", as in
// "1.0.7 Build 20240102 Rel.3". They come from the cloud and from a file, so any text is allowed. No state:
// safe in any thread.
#pragma once

/// Whether a version is newer than another. Numbers beyond 32 bits count as the nearest there is.
/// @return 1 when cmpFwVer is newer; 0 when not, or when either is null or no version (logged).
[[nodiscard]] int fwVerCmp(const char *cmpFwVer, const char *curFwVer);

/// Copies the numbers of a version text, what comes before its first blank.
/// @param devFwVerNum         zeroed by the caller; receives them.
/// @param maxDevFwVerNumLen   bytes of devFwVerNum, above the length of the numbers.
/// @return 1; 0 for a null argument, no blank or too little room (logged).
[[nodiscard]] int getDevFwVer(const char *curFwVer, char *devFwVerNum, int maxDevFwVerNumLen);
