#include "util/host_expression.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

namespace util {
namespace {

using Texts = std::vector<std::string>;

constexpr size_t kMaxNameBytes = 255;
constexpr size_t kMaxDigits = 18;    // of a number
constexpr int kMaxDepth = 4;    // of brackets

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

bool IsLetterOrDigit(char character) {
    return IsDigit(character) || (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool CanBeInName(char character) {
    return IsLetterOrDigit(character) || character == '-' || character == '_' || character == '.';
}

bool IsPadded(std::string_view digits) { return digits.size() > 1 && digits.front() == '0'; }

// REQUIRES: at most kMaxDigits digits.
uint64_t ToNumber(std::string_view digits) {
    uint64_t number = 0;
    for (const char digit : digits) number = 10 * number + static_cast<uint64_t>(digit - '0');
    return number;
}

// ---- Expanding ----

// Reads an expression from its beginning to its end, or to its first fault. A list is all of the expression (depth 0)
// or what a bracket holds.
class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    absl::StatusOr<Texts> ParseList(int depth) {
        const size_t begin = next_;
        Texts all;
        while (true) {
            absl::StatusOr<Texts> items = ParseItem(depth);
            if (!items.ok()) return items;
            if (all.size() + items->size() > kMaxHosts) return TooManyHosts(begin);
            std::move(items->begin(), items->end(), std::back_inserter(all));
            if (Peek() != ',') break;
            ++next_;
        }
        const bool is_at_end = depth == 0 ? next_ == text_.size() : Peek() == ']';
        if (is_at_end) return all;
        if (depth > 0 && next_ == text_.size()) return Fault(begin - 1, "the bracket is not closed");
        return Fault(next_, depth > 0 ? "a bracket holds numbers, ranges such as 1-8, and commas"
                                      : "this cannot be in a host name");
    }

private:
    // One name, or in a bracket one number or range.
    absl::StatusOr<Texts> ParseItem(int depth) {
        const size_t begin = next_;
        Texts items = {""};
        for (bool has_bracket = false;;) {
            if (Peek() == '[') {
                absl::StatusOr<Texts> choices = ParseBracket(depth);
                if (!choices.ok()) return choices;
                if (items.size() * choices->size() > kMaxHosts) return TooManyHosts(begin);
                items = AppendEach(std::move(items), *choices);
                has_bracket = true;
            } else {
                const std::string_view text = TakeText(depth);
                if (depth > 0 && Peek() == '-' && !has_bracket && !text.empty()) return ParseRange(text, begin);
                if (text.empty()) break;
                items = AppendEach(std::move(items), {std::string(text)});
            }
            if (items.front().size() > kMaxNameBytes) return Fault(begin, "the name is longer than 255 bytes");
        }
        if (next_ == begin) return Fault(begin, depth > 0 ? "a number is missing here" : "a host name is missing here");
        if (text_[begin] != '[' && !IsLetterOrDigit(text_[begin])) {
            return Fault(begin, "a host name begins with a letter or a digit");
        }
        return items;
    }

    absl::StatusOr<Texts> ParseBracket(int depth) {
        if (depth == kMaxDepth) return Fault(next_, fmt::format("brackets are more than {} deep", kMaxDepth));
        ++next_;
        absl::StatusOr<Texts> choices = ParseList(depth + 1);
        if (choices.ok()) ++next_;
        return choices;
    }

    // The range whose first number has just been read.
    absl::StatusOr<Texts> ParseRange(std::string_view first, size_t begin) {
        ++next_;
        const size_t begin_of_last = next_;
        const std::string_view last = TakeText(1);
        if (last.empty()) return Fault(begin_of_last, "a number is missing here");
        if (std::max(first.size(), last.size()) > kMaxDigits) {
            return Fault(begin, fmt::format("a number has more than {} digits", kMaxDigits));
        }
        const bool is_padded = IsPadded(first) || IsPadded(last);
        if (is_padded && first.size() != last.size()) {
            return Fault(begin, "the bounds have leading zeros and not the same number of digits");
        }
        const uint64_t low = ToNumber(first);
        const uint64_t high = ToNumber(last);
        if (high < low) return Fault(begin, "the range ends before it begins");
        if (high - low >= kMaxHosts) return TooManyHosts(begin);
        Texts numbers;
        for (uint64_t number = low; number <= high; ++number) {
            const std::string digits = std::to_string(number);
            const size_t num_zeros = is_padded ? first.size() - digits.size() : 0;
            numbers.push_back(std::string(num_zeros, '0') + digits);
        }
        return numbers;
    }

    // The characters from here on that can be in a name, or in a bracket's number.
    std::string_view TakeText(int depth) {
        const size_t begin = next_;
        while (next_ < text_.size() && (depth > 0 ? IsDigit(text_[next_]) : CanBeInName(text_[next_]))) ++next_;
        return text_.substr(begin, next_ - begin);
    }

    static Texts AppendEach(Texts items, const Texts& endings) {
        if (endings.size() == 1) {
            for (std::string& item : items) item += endings.front();
            return items;
        }
        Texts longer;
        longer.reserve(items.size() * endings.size());
        for (const std::string& item : items) {
            for (const std::string& ending : endings) longer.push_back(item + ending);
        }
        return longer;
    }

    char Peek() const { return next_ < text_.size() ? text_[next_] : '\0'; }

    static absl::Status Fault(size_t position, std::string_view fault) {
        return absl::InvalidArgumentError(fmt::format("at character {}: {}", position + 1, fault));
    }

    static absl::Status TooManyHosts(size_t position) {
        return Fault(position, fmt::format("this names more than {} hosts", kMaxHosts));
    }

    const std::string_view text_;
    size_t next_ = 0;
};

// ---- Folding ----

// The texts between the numbers of a name, and its numbers. There is one text more.
struct SplitName {
    Texts texts;
    Texts numbers;
};

SplitName Split(std::string_view name) {
    SplitName split;
    split.texts.emplace_back();
    for (size_t begin = 0; begin < name.size();) {
        const auto end_of_run = std::find_if(name.begin() + static_cast<std::ptrdiff_t>(begin), name.end(),
                                             [&](char c) { return IsDigit(c) != IsDigit(name[begin]); });
        const auto end = static_cast<size_t>(end_of_run - name.begin());
        const std::string_view run = name.substr(begin, end - begin);
        if (IsDigit(run.front()) && run.size() <= kMaxDigits) {
            split.numbers.emplace_back(run);
            split.texts.emplace_back();
        } else {
            split.texts.back() += run;
        }
        begin = end;
    }
    return split;
}

// Numerically, where both are numbers.
bool IsLess(const std::string& left, const std::string& right) {
    return std::forward_as_tuple(left.size(), left) < std::forward_as_tuple(right.size(), right);
}

bool IsNext(const std::string& number, const std::string& next) {
    const bool is_same_width = number.size() == next.size() || (!IsPadded(number) && !IsPadded(next));
    return is_same_width && ToNumber(next) == ToNumber(number) + 1;
}

// "7", or "[001-016,020]". REQUIRES: in the order of IsLess.
std::string FoldNumbers(const Texts& numbers) {
    if (numbers.size() == 1) return numbers.front();
    std::string text = "[";
    for (size_t first = 0; first < numbers.size();) {
        size_t last = first;
        while (last + 1 < numbers.size() && IsNext(numbers[last], numbers[last + 1]) &&
               (numbers[last + 1].size() == numbers[first].size() || !IsPadded(numbers[first]))) {
            ++last;
        }
        text += (first == 0 ? "" : ",") + numbers[first] + (last == first ? "" : "-" + numbers[last]);
        first = last + 1;
    }
    return text + "]";
}

// Makes one row of those that differ in the number `place` only.
std::vector<Texts> FoldPlace(std::vector<Texts> rows, size_t place) {
    const auto compare_others = [place](const Texts& left, const Texts& right) {
        for (size_t i = 0; i < left.size(); ++i) {
            if (i != place && left[i] != right[i]) return IsLess(left[i], right[i]) ? -1 : 1;
        }
        return 0;
    };
    std::sort(rows.begin(), rows.end(), [&](const Texts& left, const Texts& right) {
        const int order = compare_others(left, right);
        return order != 0 ? order < 0 : IsLess(left[place], right[place]);
    });
    std::vector<Texts> folded;
    for (size_t first = 0; first < rows.size();) {
        Texts numbers;
        size_t end = first;
        for (; end < rows.size() && compare_others(rows[first], rows[end]) == 0; ++end) {
            if (numbers.empty() || numbers.back() != rows[end][place]) numbers.push_back(rows[end][place]);
        }
        folded.push_back(std::move(rows[first]));
        folded.back()[place] = FoldNumbers(numbers);
        first = end;
    }
    return folded;
}

}    // namespace

absl::StatusOr<std::vector<std::string>> ExpandHosts(std::string_view expression) {
    return Parser(expression).ParseList(0);
}

std::string FoldHosts(const std::vector<std::string>& hosts) {
    std::map<Texts, std::vector<Texts>> rows_by_texts;
    for (const std::string& host : hosts) {
        SplitName split = Split(host);
        rows_by_texts[std::move(split.texts)].push_back(std::move(split.numbers));
    }
    std::string expression;
    for (auto& [texts, rows] : rows_by_texts) {
        if (texts.size() == 1) rows.resize(1);
        for (size_t place = texts.size() - 1; place-- > 0;) rows = FoldPlace(std::move(rows), place);
        for (const Texts& row : rows) {
            expression += (expression.empty() ? "" : ",") + texts.front();
            for (size_t i = 0; i < row.size(); ++i) expression += row[i] + texts[i + 1];
        }
    }
    return expression;
}

}    // namespace util
