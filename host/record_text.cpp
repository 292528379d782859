#include "host/record_text.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <span>

#include "host/word.h"

namespace {

// Here a line begins with the newline that ends the one before. So a GUID's line is three words: kGuidStart and the two
// halves of its digits.
constexpr std::string_view kHeader = "vesk_reservation_info 1";
constexpr std::string_view kGuidStart = "\nguid 0x";
constexpr size_t kGuidLineSize = 3 * kWordSize;
constexpr std::string_view kNoLimit = "none";
static_assert(kGuidStart.size() == kWordSize);

constexpr size_t kMaxEscapeSize = std::string_view("\\x01").size();
constexpr size_t kChecksumLineSize = std::string_view("checksum 0x0123456789abcdef\n").size();
constexpr std::string_view kLongestFields =    // of any record, without its key and its GUIDs
    "vesk_reservation_info 1\n"
    "reservation_key \n"
    "pkey 0xffff\n"
    "state 4294967295\n"
    "num_guids 4294967295\n"
    "limits 4294967295 4294967295 4294967295 4294967295 4294967295 4294967295 4294967295\n"
    "auto_created 255\n"
    "checksum 0x0123456789abcdef\n";

// ---- Hexadecimal digits, eight at a time, in a word ----

// The two digits of each byte, the first one in the low bits.
constexpr std::array<uint16_t, 256> kDigitPairs = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<uint16_t, 256> pairs{};
    for (size_t byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte] = static_cast<uint16_t>(kDigits[byte >> 4] | kDigits[byte & 0xf] << 8);
    }
    return pairs;
}();

inline uint64_t FormatHex(uint32_t number) {
    return uint64_t{kDigitPairs[number >> 24]} | uint64_t{kDigitPairs[number >> 16 & 0xff]} << 16 |
           uint64_t{kDigitPairs[number >> 8 & 0xff]} << 32 | uint64_t{kDigitPairs[number & 0xff]} << 48;
}

// Returns false, with any number, when a character is no digit. What a character stands for is read from its low bits,
// which other characters share: its digit is compared with it.
inline bool ParseHex(uint64_t digits, uint32_t& number) {
    constexpr uint64_t kEach = 0x0101010101010101;
    constexpr uint64_t kNibbles = 0xf * kEach;
    const uint64_t has_letter_bit = digits >> 6 & kEach;
    uint64_t nibbles = ((digits & kNibbles) + 9 * has_letter_bit) & kNibbles;
    const uint64_t is_letter = (nibbles + 6 * kEach) >> 4 & kEach;
    const bool are_digits = nibbles + '0' * kEach + is_letter * ('a' - '0' - 10) == digits;

    // Neighbours join until one number is left.
    nibbles = (nibbles << 4 | nibbles >> 8) & 0x00ff00ff00ff00ff;
    nibbles = (nibbles << 8 | nibbles >> 16) & 0x0000ffff0000ffff;
    number = static_cast<uint32_t>(nibbles << 16 | nibbles >> 32);
    return are_digits;
}

// ---- Writing ----

bool MustBeEscaped(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\\'; }

// Writes a text to where there is room for all of it.
class Writer {
public:
    explicit Writer(char* text) : start_(text), end_(text) {}

    std::string_view text() const { return {start_, static_cast<size_t>(end_ - start_)}; }

    void Put(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }

    void PutNumber(uint32_t value) { end_ = std::to_chars(end_, end_ + kMaxDigits, value).ptr; }

    // Two digits for each byte of the number.
    template <typename Number>
    void PutHex(Number value) {
        constexpr size_t kDigits = 2 * sizeof(Number);
        char digits[kWordSize];
        StoreWord(FormatHex(value), digits);
        Put({digits + kWordSize - kDigits, kDigits});
    }

    void PutKey(const char* key) {
        for (char c = *key; c != '\0'; c = *++key) {
            if (!MustBeEscaped(c)) {
                *end_++ = c;
            } else if (c == '\\') {
                Put("\\\\");
            } else {
                Put("\\x");
                PutHex(static_cast<unsigned char>(c));
            }
        }
    }

    void PutLimit(uint32_t limit) {
        Put(" ");
        limit == VESK_LIMIT_NOT_GIVEN ? Put(kNoLimit) : PutNumber(limit);
    }

    void PutGuids(std::span<const uint64_t> guids) {
        uint64_t high = 0;    // mostly the same in the next GUID
        uint64_t high_digits = FormatHex(0);
        char* line = end_;
        for (const uint64_t guid : guids) {
            if (guid >> 32 != high) {
                high = guid >> 32;
                high_digits = FormatHex(static_cast<uint32_t>(high));
            }
            std::memcpy(line, kGuidStart.data(), kWordSize);
            StoreWord(high_digits, line + kWordSize);
            StoreWord(FormatHex(static_cast<uint32_t>(guid)), line + 2 * kWordSize);
            line += kGuidLineSize;
        }
        end_ = line;
    }

    void PutChecksumLine() {
        const uint64_t checksum = RecordTextChecksum(text());
        Put("checksum 0x");
        PutHex(static_cast<uint32_t>(checksum >> 32));
        PutHex(static_cast<uint32_t>(checksum));
        Put("\n");
    }

private:
    static constexpr ptrdiff_t kMaxDigits = std::numeric_limits<uint32_t>::digits10 + 1;

    const char* const start_;
    char* end_;
};

void PutRecord(Writer& writer, const vesk_reservation_info& info) {
    writer.Put("\nreservation_key ");
    writer.PutKey(info.reservation_key);
    writer.Put("\npkey 0x");
    writer.PutHex(info.pkey);
    writer.Put("\nstate ");
    writer.PutNumber(info.state);
    writer.Put("\nnum_guids ");
    writer.PutNumber(info.num_guids);
    writer.PutGuids({info.guids, info.num_guids});
    writer.Put("\nlimits");
    for (const uint32_t limit : info.limits) writer.PutLimit(limit);
    writer.Put("\nauto_created ");
    writer.PutNumber(info.auto_created);
}

// ---- Reading ----

// Takes a text apart from its start. Each Take answers whether the text went on as it must; it reads the one form that
// writing gives.
class Reader {
public:
    explicit Reader(std::string_view text) : rest_(text) {}

    std::string_view rest() const { return rest_; }

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

    // Two hexadecimal digits for each byte of the number.
    template <typename Number>
    bool TakeHex(Number& value) {
        constexpr size_t kDigits = 2 * sizeof(Number);
        if (rest_.size() < kDigits) return false;
        char digits[] = "00000000";
        std::memcpy(digits + kWordSize - kDigits, rest_.data(), kDigits);
        uint32_t number = 0;
        if (!ParseHex(LoadWord(digits), number)) return false;
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

    // As many lines as there are GUIDs. REQUIRES: so many lines fit into rest().
    bool TakeGuids(std::span<uint64_t> guids) {
        uint32_t high = 0;    // mostly the same in the next GUID
        uint64_t high_digits = FormatHex(high);
        const char* line = rest_.data();
        for (uint64_t& guid : guids) {
            if (std::memcmp(line, kGuidStart.data(), kWordSize) != 0) return false;
            if (LoadWord(line + kWordSize) != high_digits) {
                high_digits = LoadWord(line + kWordSize);
                if (!ParseHex(high_digits, high)) return false;
            }
            uint32_t low = 0;
            if (!ParseHex(LoadWord(line + 2 * kWordSize), low)) return false;
            guid = uint64_t{high} << 32 | low;
            line += kGuidLineSize;
        }
        rest_.remove_prefix(guids.size() * kGuidLineSize);
        return true;
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
    if (info.num_guids > reader.rest().size() / kGuidLineSize) return false;
    if (info.num_guids > 0) info.guids = new uint64_t[info.num_guids];
    return reader.TakeGuids({info.guids, info.num_guids});
}

bool TakeLimits(Reader& reader, vesk_reservation_info& info) {
    for (uint32_t& limit : info.limits) {
        if (!reader.TakeLimit(limit)) return false;
    }
    return true;
}

bool TakeRecord(Reader& reader, vesk_reservation_info& info) {
    return reader.Take("\nreservation_key ") && reader.TakeKey(info.reservation_key) &&    //
           reader.Take("\npkey 0x") && reader.TakeHex(info.pkey) &&    //
           reader.Take("\nstate ") && reader.TakeNumber(info.state) &&    //
           reader.Take("\nnum_guids ") && reader.TakeNumber(info.num_guids) && TakeGuids(reader, info) &&    //
           reader.Take("\nlimits") && TakeLimits(reader, info) &&    //
           reader.Take("\nauto_created ") && reader.TakeNumber(info.auto_created);
}

// The text without its last line; empty when that line is missing or wrong.
std::string_view WithoutChecksum(std::string_view text) {
    if (text.size() < kChecksumLineSize) return {};
    Reader last_line(text.substr(text.size() - kChecksumLineSize));
    text.remove_suffix(kChecksumLineSize);
    uint32_t high = 0;
    uint32_t low = 0;
    const bool is_line =
        last_line.Take("checksum 0x") && last_line.TakeHex(high) && last_line.TakeHex(low) && last_line.rest() == "\n";
    return is_line && RecordTextChecksum(text) == (uint64_t{high} << 32 | low) ? text : std::string_view();
}

// Two different words never take a state to the same one, and one word never takes two different states to the same
// one.
inline uint64_t Mix(uint64_t state, uint64_t word) {
    return (state + std::rotl(word * 0xc2b2ae3d27d4eb4f, 31)) * 0x9e3779b185ebca87;
}

}    // namespace

void RecordDeleter::operator()(vesk_reservation_info* info) const {
    delete[] info->guids;
    delete info;
}

std::optional<size_t> MaxRecordTextSize(const vesk_reservation_info* info) {
    if (info == nullptr) return kLongestFields.size();
    const size_t key_length = strnlen(info->reservation_key, VESK_KEY_SIZE);
    if (key_length == VESK_KEY_SIZE || (info->num_guids > 0 && info->guids == nullptr)) return std::nullopt;
    return kLongestFields.size() + key_length * kMaxEscapeSize + info->num_guids * kGuidLineSize;
}

size_t WriteRecordText(const vesk_reservation_info* info, char* text) {
    Writer writer(text);
    writer.Put(kHeader);
    if (info != nullptr) PutRecord(writer, *info);
    writer.Put("\n");
    writer.PutChecksumLine();
    return writer.text().size();
}

std::optional<RecordPointer> ReadRecordText(std::string_view text) {
    Reader reader(WithoutChecksum(text));
    if (!reader.Take(kHeader)) return std::nullopt;
    if (reader.rest() == "\n") return RecordPointer();
    RecordPointer info(new vesk_reservation_info{});
    if (!TakeRecord(reader, *info) || reader.rest() != "\n") return std::nullopt;
    return info;
}

// The start of the text, as much as fills no block, goes into one state, and each word of the blocks into a state of
// its own: a processor multiplies for all of them at once.
uint64_t RecordTextChecksum(std::string_view text) {
    constexpr size_t kBlockSize = 4 * kWordSize;
    uint64_t sum = text.size();
    const size_t odd_bytes = text.size() % kWordSize;
    if (odd_bytes > 0) sum = Mix(sum, LoadWord(text.data(), odd_bytes));
    text.remove_prefix(odd_bytes);
    for (; text.size() % kBlockSize != 0; text.remove_prefix(kWordSize)) sum = Mix(sum, LoadWord(text.data()));

    uint64_t a = 1, b = 2, c = 3, d = 4;
    for (; !text.empty(); text.remove_prefix(kBlockSize)) {
        a = Mix(a, LoadWord(text.data()));
        b = Mix(b, LoadWord(text.data() + kWordSize));
        c = Mix(c, LoadWord(text.data() + 2 * kWordSize));
        d = Mix(d, LoadWord(text.data() + 3 * kWordSize));
    }
    return Mix(Mix(Mix(Mix(sum, a), b), c), d);
}
