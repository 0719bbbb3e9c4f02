// A journal as one self-contained page: each record a row with its arrows (SVG), which unfolds to the
// record's JSON and the message's bytes. No script, nothing from the network.
#pragma once

#include <iosfwd>
#include <string>

#include "journal_reader.h"

namespace emulator {

/// Writes the page of a journal, which is read to its end. Failures to write show in the stream's state.
/// @param title  for example the journal's path.
/// @throws std::system_error  the journal cannot be read.
void write_page(std::ostream &out, JournalReader &journal, const std::string &title);

/// Bytes as lines of offset, hexadecimal and text.
[[nodiscard]] std::string hex_dump(std::string_view bytes);

}  // namespace emulator
