// The daemon's messaging layer, as far as the reservation manager uses it.

#pragma once

#include <cstdint>

#include "messages/vesk_dov_msg.h"

// A client's endpoint. The manager hands it back with the reply and never looks inside.
struct dov_ep;

// Packs a message into text. Only messages of type VESK_MSG_TYPE_RESERVATION_INFO are supported; their record may be
// null. Returns 0 and a buffer of `*length` bytes, at least 16, none of them NUL, which the caller releases with
// free(). Returns nonzero, with `*buffer` null, when the type is another, the record is not well-formed (its key lacks
// the terminating NUL, or its GUIDs are counted but not there), or memory runs out. The two unnamed arguments are
// unused.
//
// The text is that of a reservation file, which docs/file_format.md specifies. A message without a record packs to its
// first and its last line alone.
int dov_msg_pack(uint64_t, int type, uint64_t, const vesk_dov_msg* msg, char** buffer, uint64_t* length);

// Unpacks what dov_msg_pack made. `buffer` ends with a NUL, at which the decoder stops. Returns 0 and a new message,
// which the caller releases with dov_vesk_msg_release(). Returns nonzero, with `*msg` null, when the type is another or
// the text differs in anything from what packing gives: damaged, cut, too long, or of another version. When memory runs
// out, which says nothing about the text, std::bad_alloc passes through.
int dov_msg_unpack(uint64_t, int type, const char* buffer, vesk_dov_msg** msg);

// Whether the packed message at `buffer` is exactly `size` bytes long, nothing behind it: the decoder is not told how
// many there are. REQUIRES: dov_msg_unpack accepted the message; a NUL follows the `size` bytes, as the decoder wants
// it. False when the type is another.
bool dov_msg_fills(int type, const char* buffer, uint64_t size);

// Releases a message that dov_msg_unpack made, with its record. Null is allowed.
void dov_vesk_msg_release(int type, vesk_dov_msg* msg);
