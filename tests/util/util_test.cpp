// Text from outside, keys, and whole files.

#include <gtest/gtest.h>

#include <string>

#include "tests/files.h"
#include "util/file.h"
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
