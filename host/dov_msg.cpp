#include "host/dov_msg.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "host/hash_bytes.h"
#include "messages/vesk_messages.h"

namespace {

constexpr std::string_view kHeader = "vesk_reservation_info 1\n";
constexpr std::string_view kNoLimit = "none";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr size_t kGuidLineLength = std::string_view("guid 0x0123456789abcdef\n").size();
constexpr size_t kChecksumLineLength = std::string_view("checksum 0x0123456789abcdef\n").size();

// ---- Packing ----

bool MustBeEscaped(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\\'; }

// The fixed-width form of pkeys, GUIDs and checksums.
void AppendHex(std::string& text, uint64_t value, size_t digits) {
    char hex[sizeof("0x0123456789abcdef")] = "0x";
    const size_t length = 2 + digits;
    for (size_t place = length; place > 2; value >>= 4) hex[--place] = kHexDigits[value & 0xf];
    text.append(hex, length);
}

void AppendKey(std::string& text, std::string_view key) {
    for (const char c : key) {
        if (!MustBeEscaped(c)) {
            text.push_back(c);
        } else if (c == '\\') {
            text.append("\\\\");
        } else {
            text.append("\\x").append(
                {kHexDigits[static_cast<size_t>(c) >> 4], kHexDigits[static_cast<size_t>(c) & 0xf]});
        }
    }
}

void AppendLimit(std::string& text, uint32_t limit) {
    text.push_back(' ');
    text.append(limit == VESK_LIMIT_NOT_GIVEN ? std::string(kNoLimit) : std::to_string(limit));
}

void AppendNumberLine(std::string& text, std::string_view name, uint32_t value) {
    text.append(name).append(" ").append(std::to_string(value)).append("\n");
}

void AppendHexLine(std::string& text, std::string_view name, uint64_t value, size_t digits) {
    text.append(name).append(" ");
    AppendHex(text, value, digits);
    text.push_back('\n');
}

void AppendRecord(std::string& text, const vesk_reservation_info& info) {
    text.append("reservation_key ");
    AppendKey(text, info.reservation_key);
    text.push_back('\n');
    AppendHexLine(text, "pkey", info.pkey, 4);
    AppendNumberLine(text, "state", info.state);
    AppendNumberLine(text, "num_guids", info.num_guids);
    for (uint32_t i = 0; i < info.num_guids; ++i) AppendHexLine(text, "guid", info.guids[i], 16);
    text.append("limits");
    for (const uint32_t limit : info.limits) AppendLimit(text, limit);
    text.push_back('\n');
    AppendNumberLine(text, "auto_created", info.auto_created);
}

bool IsWellFormed(const vesk_reservation_info& info) {
    const bool key_ends = strnlen(info.reservation_key, VESK_KEY_SIZE) < VESK_KEY_SIZE;
    return key_ends && (info.num_guids == 0 || info.guids != nullptr);
}

std::string Pack(const vesk_reservation_info* info) {
    constexpr size_t kRoomForFields = 4 * VESK_KEY_SIZE + 512;
    const size_t num_guids = info != nullptr ? info->num_guids : 0;
    std::string text;
    text.reserve(kRoomForFields + num_guids * kGuidLineLength);
    text.append(kHeader);
    if (info != nullptr) AppendRecord(text, *info);
    AppendHexLine(text, "checksum", HashBytes(text), 16);
    return text;
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
        if (rest_.size() < kDigits) return false;
        uint64_t number = 0;
        for (const char c : rest_.substr(0, kDigits)) {
            const int digit = HexDigit(c);
            if (digit < 0) return false;
            number = number << 4 | static_cast<uint64_t>(digit);
        }
        value = static_cast<Number>(number);
        rest_.remove_prefix(kDigits);
        return true;
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

    template <typename Number>
    bool TakeHexLine(std::string_view name, Number& value) {
        return Take(name) && Take(" 0x") && TakeHex(value) && Take("\n");
    }

private:
    static int HexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    }

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
        if (!reader.TakeHexLine("guid", info.guids[i])) return false;
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
           reader.TakeHexLine("pkey", info.pkey) && reader.TakeNumberLine("state", info.state) &&
           reader.TakeNumberLine("num_guids", info.num_guids) && TakeGuids(reader, info) && TakeLimits(reader, info) &&
           reader.TakeNumberLine("auto_created", info.auto_created) && reader.Remaining() == 0;
}

// The text between the first and the last line, when both are right.
std::optional<std::string_view> TakeBody(std::string_view text) {
    if (!text.starts_with(kHeader) || text.size() < kHeader.size() + kChecksumLineLength) return std::nullopt;
    const std::string_view checked = text.substr(0, text.size() - kChecksumLineLength);
    Reader last_line(text.substr(checked.size()));
    uint64_t checksum = 0;
    if (!last_line.TakeHexLine("checksum", checksum) || checksum != HashBytes(checked)) return std::nullopt;
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
    try {
        const std::string text = Pack(info);
        *buffer = static_cast<char*>(std::malloc(text.size()));
        if (*buffer == nullptr) return -1;
        std::memcpy(*buffer, text.data(), text.size());
        *length = text.size();
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int dov_msg_unpack(uint64_t, int type, const char* buffer, vesk_dov_msg** msg) {
    *msg = nullptr;
    if (type == VESK_MSG_TYPE_RESERVATION_INFO) *msg = Unpack(buffer);
    return *msg != nullptr ? 0 : -1;
}

void dov_vesk_msg_release(int type, vesk_dov_msg* msg) {
    if (msg == nullptr || type != VESK_MSG_TYPE_RESERVATION_INFO) return;
    if (msg->data != nullptr) RecordDeleter()(static_cast<vesk_reservation_info*>(msg->data));
    delete msg;
}
