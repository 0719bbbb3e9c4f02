// Time as text and in milliseconds, and a copy of a text. No state: safe in any thread.
#pragma once

#include <array>
#include <cstdint>

/// Room for "2026-01-31 09:05:07.042" with its NUL.
using TimeText = std::array<char, 24>;

/// Writes the local time as "2026-01-31 09:05:07.042". Takes no memory from the heap but what the C library
/// takes where it first looks up the time zone.
/// @param text  out: good only on true.
/// @return false when there is no such time.
[[nodiscard]] bool cloud_time_text(TimeText *text);

/// Wall-clock milliseconds since 1970; 0 when the clock cannot be read.
[[nodiscard]] int64_t cloud_time_ms();

/// Copy of `text` (not null) on the heap, the caller's to free(); null when there is no memory.
[[nodiscard]] char *cloud_string_dup(const char *text);

// Interface only: nothing in the library calls what follows.

/// Local time as "2026-01-31 09:05:07.042" (23 characters).
/// @return heap text, the caller's to free(); null when there is no memory or no such time.
[[nodiscard]] char *cloud_time_string();
