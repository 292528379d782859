#include "host/dov_msg.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

#include "host/hash_bytes.h"
#include "messages/vesk_messages.h"

namespace {

constexpr std::string_view kHeader = "vesk_reservation_info 1\n";
constexpr std::string_view kNoLimit = "none";
constexpr size_t kGuidLineLength = std::string_view("guid 0x0123456789abcdef\n").size();
constexpr size_t kChecksumLineLength = std::string_view("checksum 0x0123456789abcdef\n").size();

// ---- Eight hexadecimal digits at once ----

using HexDigits = std::array<char, 8>;

// The digits as a word, the first one in its lowest byte; and back.
uint64_t WordOf(HexDigits digits) {
    if constexpr (std::endian::native == std::endian::big) std::reverse(digits.begin(), digits.end());
    return std::bit_cast<uint64_t>(digits);
}
HexDigits DigitsIn(uint64_t word) {
    auto digits = std::bit_cast<HexDigits>(word);
    if constexpr (std::endian::native == std::endian::big) std::reverse(digits.begin(), digits.end());
    return digits;
}

constexpr uint64_t kInEveryByte = 0x0101010101010101;

// Halves the number again and again, the high half going behind the low one, until each byte has one nibble.
inline HexDigits FormatHex(uint32_t number) {
    uint64_t nibbles = number;
    nibbles = nibbles >> 16 | (nibbles & 0xffff) << 32;
    nibbles = (nibbles >> 8 & 0x000000ff000000ff) | (nibbles & 0x000000ff000000ff) << 16;
    nibbles = (nibbles >> 4 & 0x000f000f000f000f) | (nibbles & 0x000f000f000f000f) << 8;
    const uint64_t is_letter = (nibbles + 6 * kInEveryByte) >> 4 & kInEveryByte;
    return DigitsIn(nibbles + '0' * kInEveryByte + is_letter * ('a' - '0' - 10));
}

// The way back. What are no digits give a number as well: formatting that tells the difference.
inline std::optional<uint32_t> ParseHex(HexDigits digits) {
    const uint64_t word = WordOf(digits);
    const uint64_t is_letter = word >> 6 & kInEveryByte;
    uint64_t nibbles = (word & 0xf * kInEveryByte) + 9 * is_letter;
    nibbles = (nibbles << 4 | nibbles >> 8) & 0x00ff00ff00ff00ff;
    nibbles = (nibbles << 8 | nibbles >> 16) & 0x0000ffff0000ffff;
    const auto number = static_cast<uint32_t>(nibbles << 16 | nibbles >> 32);
    return FormatHex(number) == digits ? std::optional(number) : std::nullopt;
}

// ---- Packing ----

bool MustBeEscaped(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\\'; }

// Writes a packed text into a buffer that has room for all of it.
class Writer {
public:
    explicit Writer(char* buffer) : start_(buffer), end_(buffer) {}

    std::string_view text() const { return {start_, static_cast<size_t>(end_ - start_)}; }

    void Append(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }

    void AppendDecimal(uint32_t value) { end_ = std::to_chars(end_, end_ + kMaxDigits, value).ptr; }

    // The fixed-width form: two digits for each byte of the number.
    template <typename Number>
    void AppendHex(Number value) {
        constexpr size_t kDigits = 2 * sizeof(Number);
        if constexpr (kDigits > 8) {
            AppendHex(static_cast<uint32_t>(value >> 32));
            AppendHex(static_cast<uint32_t>(value));
        } else {
            const HexDigits digits = FormatHex(value);
            Append({digits.data() + digits.size() - kDigits, kDigits});
        }
    }

    void AppendKey(std::string_view key) {
        for (const char c : key) {
            if (!MustBeEscaped(c)) {
                *end_++ = c;
            } else if (c == '\\') {
                Append("\\\\");
            } else {
                Append("\\x");
                AppendHex(static_cast<unsigned char>(c));
            }
        }
    }

    void AppendNumberLine(std::string_view name, uint32_t value) {
        Append(name);
        Append(" ");
        AppendDecimal(value);
        Append("\n");
    }

    // The name goes up to the digits, "pkey 0x".
    template <typename Number>
    void AppendHexLine(std::string_view name, Number value) {
        Append(name);
        AppendHex(value);
        Append("\n");
    }

private:
    static constexpr ptrdiff_t kMaxDigits = std::numeric_limits<uint32_t>::digits10 + 1;

    const char* const start_;
    char* end_;
};

void AppendRecord(Writer& writer, const vesk_reservation_info& info) {
    writer.Append("reservation_key ");
    writer.AppendKey(info.reservation_key);
    writer.Append("\n");
    writer.AppendHexLine("pkey 0x", info.pkey);
    writer.AppendNumberLine("state", info.state);
    writer.AppendNumberLine("num_guids", info.num_guids);
    for (uint32_t i = 0; i < info.num_guids; ++i) writer.AppendHexLine("guid 0x", info.guids[i]);
    writer.Append("limits");
    for (const uint32_t limit : info.limits) {
        writer.Append(" ");
        limit == VESK_LIMIT_NOT_GIVEN ? writer.Append(kNoLimit) : writer.AppendDecimal(limit);
    }
    writer.Append("\n");
    writer.AppendNumberLine("auto_created", info.auto_created);
}

bool IsWellFormed(const vesk_reservation_info& info) {
    const bool key_ends = strnlen(info.reservation_key, VESK_KEY_SIZE) < VESK_KEY_SIZE;
    return key_ends && (info.num_guids == 0 || info.guids != nullptr);
}

// As many bytes as the packed text may have.
size_t RoomFor(const vesk_reservation_info* info) {
    constexpr size_t kRoomForFields = 4 * VESK_KEY_SIZE + 512;
    return kRoomForFields + (info != nullptr ? info->num_guids * kGuidLineLength : 0);
}

// ---- Unpacking ----

struct RecordDeleter {
    void operator()(vesk_reservation_info* info) const {
        delete[] info->guids;
        delete info;
    }
};
using RecordPointer = std::unique_ptr<vesk_reservation_info, RecordDeleter>;

// Takes a packed text apart from its start. Each Take answers whether the text went on as it must; it reads the one
// form that packing writes.
class Reader {
public:
    explicit Reader(std::string_view text) : rest_(text) {}

    size_t Remaining() const { return rest_.size(); }

    bool Take(std::string_view expected) {
        if (!rest_.starts_with(expected)) return false;
        rest_.remove_prefix(expected.size());
        return true;
    }

    // A decimal number without leading zeros.
    template <typename Number>
    bool TakeNumber(Number& value) {
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        if (error != std::errc()) return false;
        const auto length = static_cast<size_t>(end - rest_.data());
        if (length > 1 && rest_.front() == '0') return false;
        rest_.remove_prefix(length);
        return true;
    }

    // Exactly two hexadecimal digits for each byte of the number.
    template <typename Number>
    bool TakeHex(Number& value) {
        constexpr size_t kDigits = 2 * sizeof(Number);
        if constexpr (kDigits > 8) {
            uint32_t high = 0;
            uint32_t low = 0;
            if (!TakeHex(high) || !TakeHex(low)) return false;
            value = Number{high} << 32 | low;
            return true;
        } else {
            if (rest_.size() < kDigits) return false;
            HexDigits digits;
            digits.fill('0');
            std::memcpy(digits.end() - kDigits, rest_.data(), kDigits);
            const std::optional<uint32_t> number = ParseHex(digits);
            if (!number) return false;
            value = static_cast<Number>(*number);
            rest_.remove_prefix(kDigits);
            return true;
        }
    }

    // A key up to the end of its line, into an array that is zeroed.
    bool TakeKey(char (&key)[VESK_KEY_SIZE]) {
        for (size_t length = 0; !rest_.empty() && rest_.front() != '\n'; ++length) {
            if (length == VESK_KEY_LENGTH || !TakeKeyByte(key[length])) return false;
        }
        return true;
    }

    bool TakeLimit(uint32_t& limit) {
        if (!Take(" ")) return false;
        if (!Take(kNoLimit)) return TakeNumber(limit) && limit != VESK_LIMIT_NOT_GIVEN;
        limit = VESK_LIMIT_NOT_GIVEN;
        return true;
    }

    template <typename Number>
    bool TakeNumberLine(std::string_view name, Number& value) {
        return Take(name) && Take(" ") && TakeNumber(value) && Take("\n");
    }

    // The name goes up to the digits, "pkey 0x".
    template <typename Number>
    bool TakeHexLine(std::string_view name, Number& value) {
        return Take(name) && TakeHex(value) && Take("\n");
    }

private:
    bool TakeKeyByte(char& byte) {
        if (!MustBeEscaped(rest_.front())) {
            byte = rest_.front();
            rest_.remove_prefix(1);
            return true;
        }
        if (Take("\\\\")) {
            byte = '\\';
            return true;
        }
        unsigned char code = 0;
        if (!Take("\\x") || !TakeHex(code)) return false;
        byte = static_cast<char>(code);
        return byte != '\0' && byte != '\\' && MustBeEscaped(byte);
    }

    std::string_view rest_;
};

bool TakeGuids(Reader& reader, vesk_reservation_info& info) {
    // The count is believed only when the text has room for so many lines.
    if (info.num_guids > reader.Remaining() / kGuidLineLength) return false;
    if (info.num_guids > 0) info.guids = new uint64_t[info.num_guids];
    for (uint32_t i = 0; i < info.num_guids; ++i) {
        if (!reader.TakeHexLine("guid 0x", info.guids[i])) return false;
    }
    return true;
}

bool TakeLimits(Reader& reader, vesk_reservation_info& info) {
    if (!reader.Take("limits")) return false;
    for (uint32_t& limit : info.limits) {
        if (!reader.TakeLimit(limit)) return false;
    }
    return reader.Take("\n");
}

bool TakeRecord(Reader& reader, vesk_reservation_info& info) {
    return reader.Take("reservation_key ") && reader.TakeKey(info.reservation_key) && reader.Take("\n") &&
           reader.TakeHexLine("pkey 0x", info.pkey) && reader.TakeNumberLine("state", info.state) &&
           reader.TakeNumberLine("num_guids", info.num_guids) && TakeGuids(reader, info) && TakeLimits(reader, info) &&
           reader.TakeNumberLine("auto_created", info.auto_created) && reader.Remaining() == 0;
}

// The text between the first and the last line, when both are right.
std::optional<std::string_view> TakeBody(std::string_view text) {
    if (!text.starts_with(kHeader) || text.size() < kHeader.size() + kChecksumLineLength) return std::nullopt;
    const std::string_view checked = text.substr(0, text.size() - kChecksumLineLength);
    Reader last_line(text.substr(checked.size()));
    uint64_t checksum = 0;
    if (!last_line.TakeHexLine("checksum 0x", checksum) || checksum != HashBytes(checked)) return std::nullopt;
    return checked.substr(kHeader.size());
}

// Null when the text is no message.
vesk_dov_msg* Unpack(std::string_view text) {
    const std::optional<std::string_view> body = TakeBody(text);
    if (!body) return nullptr;

    RecordPointer info;
    if (!body->empty()) {
        info.reset(new vesk_reservation_info{});
        Reader reader(*body);
        if (!TakeRecord(reader, *info)) return nullptr;
    }
    auto msg = std::make_unique<vesk_dov_msg>();
    msg->data = info.release();
    return msg.release();
}

}    // namespace

int dov_msg_pack(uint64_t, int type, uint64_t, const vesk_dov_msg* msg, char** buffer, uint64_t* length) {
    *buffer = nullptr;
    *length = 0;
    if (type != VESK_MSG_TYPE_RESERVATION_INFO) return -1;
    const auto* info = static_cast<const vesk_reservation_info*>(msg->data);
    if (info != nullptr && !IsWellFormed(*info)) return -1;
    *buffer = static_cast<char*>(std::malloc(RoomFor(info)));
    if (*buffer == nullptr) return -1;

    Writer writer(*buffer);
    writer.Append(kHeader);
    if (info != nullptr) AppendRecord(writer, *info);
    writer.AppendHexLine("checksum 0x", HashBytes(writer.text()));
    *length = writer.text().size();
    return 0;
}

int dov_msg_unpack(uint64_t, int type, const char* buffer, vesk_dov_msg** msg) {
    *msg = nullptr;
    if (type == VESK_MSG_TYPE_RESERVATION_INFO) *msg = Unpack(buffer);
    return *msg != nullptr ? 0 : -1;
}

bool dov_msg_fills(int type, const char* buffer, uint64_t size) {
    return type == VESK_MSG_TYPE_RESERVATION_INFO && std::strlen(buffer) == size;    // packed text holds no NUL
}

void dov_vesk_msg_release(int type, vesk_dov_msg* msg) {
    if (msg == nullptr || type != VESK_MSG_TYPE_RESERVATION_INFO) return;
    if (msg->data != nullptr) RecordDeleter()(static_cast<vesk_reservation_info*>(msg->data));
    delete msg;
}
