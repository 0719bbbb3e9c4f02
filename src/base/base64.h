// Base64 (RFC 4648, standard alphabet, padded): arguments come in it, so that they can hold any byte. No
// state: safe in any thread.
#pragma once

#include <cstdint>

/// Decodes a text. Outer white space is skipped; decoding ends at the first padded group.
/// @param dst     receives the bytes; no terminator is written.
/// @param dstlen  bytes of dst, above 0 (else the program stops): callers give one less than their zeroed
///                buffer has, so that the result is a text.
/// @param srclen  characters of src; negative: up to its terminator.
/// @return bytes written; 0 for a null src; -1 for malformed text or when dst is full, and what was decoded
///         up to there stays in dst.
[[nodiscard]] int32_t b64_decode(void *dst, int32_t dstlen, const char *src, int32_t srclen);

/// How many bytes a text decodes to by its length and padding alone, well formed or not; 0 for null.
/// A text of which this does not fit a buffer is too long for it; one that fits and fails is malformed.
[[nodiscard]] int64_t b64_decodedSize(const char *src);

// Interface only: no command calls what follows.

/// Encodes bytes.
/// @param dstlen  bytes of dst, terminator included, above 0 (else the program stops).
/// @param srclen  bytes of src, not negative (else the program stops).
/// @return characters before the terminator; 0 for a null src; -1 when dst is too small.
[[nodiscard]] int32_t b64_encode(char *dst, int32_t dstlen, const void *src, int32_t srclen);
