// The text of a reservation file: how it is written and read. docs/file_format.md specifies it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "messages/vesk_messages.h"

// Releases a record together with its GUIDs.
struct RecordDeleter {
    void operator()(vesk_reservation_info* info) const;
};
using RecordPointer = std::unique_ptr<vesk_reservation_info, RecordDeleter>;

// How many bytes the record's text has at most; null stands for no record. Empty when the record is not well-formed:
// its key lacks the terminating NUL, or its GUIDs are counted but not there.
std::optional<size_t> MaxRecordTextSize(const vesk_reservation_info* info);

// Writes the record's text, without a NUL, and returns its size in bytes. REQUIRES: the record is well-formed, and
// `text` has room for MaxRecordTextSize(info) bytes.
size_t WriteRecordText(const vesk_reservation_info* info, char* text);

// Reads what WriteRecordText wrote: a record of its own, or null where there was none. Empty when the text differs in
// anything from what writing gives. When memory runs out, which says nothing about the text, std::bad_alloc passes
// through.
std::optional<RecordPointer> ReadRecordText(std::string_view text);

// The checksum in the last line of a text, of everything before that line.
uint64_t RecordTextChecksum(std::string_view text);
