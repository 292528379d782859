// Text from outside, keys, host expressions, and whole files.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/files.h"
#include "util/file.h"
#include "util/host_expression.h"
#include "util/limits.h"
#include "util/text.h"

namespace util {
namespace {

TEST(TextTest, EachKindOfTextIsToldPrintedAndJudgedAsAKey) {
    const std::string longest(kMaxKeyBytes, 'k');
    const std::string control = "contains a control character";
    const struct {
        std::string text, printable, fault_as_key;
        bool is_utf8 = true;
    } cases[] = {
        {"", "", ""},
        {"plain ~\\", "plain ~\\", ""},
        {"gr\xc3\xb6\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf", "größ € 😀 \xf4\x8f\xbf\xbf", ""},
        {"a/b", "a/b", "contains a slash"},
        {"\x1f|\x7f|\n", "\\x1f|\\x7f|\\x0a", control},
        {std::string(1, '\0'), "\\x00", control},
        {"\xc2\x80|\xc2\x9f|\xc2\xa0", "\\u0080|\\u009f|\xc2\xa0", control},
        {"\xe2\x80\xa7\xe2\x80\xa8\xe2\x80\xae\xe2\x80\xaf", "\xe2\x80\xa7\\u2028\\u202e\xe2\x80\xaf", control},
        {"\xe2\x81\xa5\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xaa", "\xe2\x81\xa5\\u2066\\u2069\xe2\x81\xaa", control},
        {longest, longest, ""},
        {longest + "k", longest + "k", "has 244 bytes, a file name holds 243"},
        {"\xff", "\\xff", "is not UTF-8", false},
        {"a\x80z", "a\\x80z", "is not UTF-8", false},    // continues nothing
        {"\xc3", "\\xc3", "is not UTF-8", false},    // is not continued
        {"\xe2\x82", "\\xe2\\x82", "is not UTF-8", false},    // nor is this
        {"\xc0\xaf", "\\xc0\\xaf", "is not UTF-8", false},    // longer than need be
        {"\xed\xa0\x80", "\\xed\\xa0\\x80", "is not UTF-8", false},    // half a surrogate pair
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "is not UTF-8", false}};    // beyond the last character
    for (const auto& [text, printable, fault_as_key, is_utf8] : cases) {
        EXPECT_EQ(IsUtf8(text), is_utf8) << printable;
        EXPECT_EQ(Printable(text), printable);
        EXPECT_EQ(ValidateKey(text).message(), fault_as_key) << printable;
    }
}

TEST(TextTest, MessagesHoldTheStartOfAText) {
    const std::string most(39, 'x');
    EXPECT_EQ(TruncateForMessage(most + "\n"), most + "\\x0a");
    EXPECT_EQ(TruncateForMessage(most + "yz"), most + "y...");
    EXPECT_EQ(TruncateForMessage(most + "\xc3\xb6"), most + "...");
    EXPECT_EQ(TruncateForMessage(most.substr(3) + "\xf0\x9f\x98\x80z"), most.substr(3) + "😀...");
    EXPECT_EQ(TruncateForMessage(std::string(41, '\x80')).size(), 37 * 4 + 3U);
}

// What an expression names and how that is folded, or its fault.
std::string Expanded(const std::string& expression) {
    const absl::StatusOr<std::vector<std::string>> hosts = ExpandHosts(expression);
    if (!hosts.ok()) return std::string(hosts.status().message());
    std::string text;
    for (const std::string& host : *hosts) text += host + " ";
    return text + "= " + FoldHosts(*hosts);
}

TEST(HostExpressionTest, NamesHostsOrTheCharacterAtFault) {
    const std::string longest(255, 'n');
    const std::string in_bracket = "a bracket holds numbers, ranges such as 1-8, and commas";
    const std::string too_many = "this names more than 250000 hosts";
    const struct {
        std::string expression, meaning;
    } cases[] = {
        {"login1", "login1 = login1"},
        {"n[08-10,9,9],a-b.c_d", "n08 n09 n10 n9 n9 a-b.c_d = a-b.c_d,n[9,08-10]"},
        {"n[98-101,099-100]", "n98 n99 n100 n101 n099 n100 = n[98-99,099-101]"},
        {"r[1-2]n[01-02]b,r3n03b", "r1n01b r1n02b r2n01b r2n02b r3n03b = r3n03b,r[1-2]n[01-02]b"},
        {"n[1,2[0-1],[3]],[4-5]", "n1 n20 n21 n3 4 5 = [4-5],n[1,3,20-21]"},
        {"n[0-1][00]", "n000 n100 = n[000,100]"},
        {"n1234567890123456789", "n1234567890123456789 = n1234567890123456789"},
        {longest, longest + " = " + longest},
        {"n[000000000000000008-9]", "at character 3: the bounds have leading zeros and not the same number of digits"},
        {"", "at character 1: a host name is missing here"},
        {"a,,b", "at character 3: a host name is missing here"},
        {"a b", "at character 2: this cannot be in a host name"},
        {"n1]", "at character 3: this cannot be in a host name"},
        {"a,-b", "at character 3: a host name begins with a letter or a digit"},
        {longest + "n", "at character 1: the name is longer than 255 bytes"},
        {"n[1-3,", "at character 7: a number is missing here"},
        {"a,n[1[2]", "at character 4: the bracket is not closed"},
        {"n[]", "at character 3: a number is missing here"},
        {"n[1-]", "at character 5: a number is missing here"},
        {"n[1-2-3]", "at character 6: " + in_bracket},
        {"n[1-3/2]", "at character 6: " + in_bracket},
        {"n[[1]-3]", "at character 6: " + in_bracket},
        {"n[7,3-1]", "at character 5: the range ends before it begins"},
        {"n[01-100]", "at character 3: the bounds have leading zeros and not the same number of digits"},
        {"n[1-1234567890123456789]", "at character 3: a number has more than 18 digits"},
        {"n[[[[[1]]]]]", "at character 6: brackets are more than 4 deep"},
        {"n[1-250001]", "at character 3: " + too_many},
        {"a,n[0-499][0-500]", "at character 3: " + too_many},
        {"a,n[1-250000]", "at character 1: " + too_many}};
    for (const auto& [expression, meaning] : cases) EXPECT_EQ(Expanded(expression), meaning) << expression;
    EXPECT_EQ(FoldHosts({}), "");
    EXPECT_EQ(FoldHosts(*ExpandHosts("n[0-249999]")), "n[0-249999]");
}

TEST(FileTest, HoldsAllOrSaysWhyNot) {
    const TemporaryDirectory dir;
    const std::string path = dir.path() + "/file";
    const std::string large(300'000, '\0');
    for (const std::string& content : {large, std::string("text"), std::string()}) {
        EXPECT_TRUE(WriteWholeFile(path, content).ok());
        EXPECT_EQ(*ReadWholeFile(path), content);
        EXPECT_TRUE(ReplaceWholeFile(path, content + "!").ok());
        EXPECT_EQ(Content(path), content + "!");
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    EXPECT_EQ(ReadWholeFile(dir.path()).status().message(), dir.path() + ": cannot be read: Is a directory");
    EXPECT_EQ(ReadWholeFile(path + "/x").status().message(), path + "/x: cannot be read: Not a directory");
    EXPECT_EQ(WriteWholeFile("/dev/full", "x").message(), "/dev/full: cannot be written: No space left on device");
    const std::string taken = dir.path() + "/taken/inside";
    std::filesystem::create_directories(taken);
    EXPECT_FALSE(ReplaceWholeFile(dir.path() + "/taken", "x").ok());
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/taken.tmp"));
}

}    // namespace
}    // namespace util
