// Any contents of reservation files: as they are, and sealed with the right checksum, so that what is behind the
// checksum is reached too. A start-up over a directory with such files must leave reservations that can be changed and
// deleted.

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/files.h"
#include "tests/reservation/model_check.h"

namespace {

std::string StartUpWith(const std::vector<std::string>& texts) {
    TestDaemon daemon;
    for (size_t i = 0; i < texts.size(); ++i) Write(daemon.PathOf(std::to_string(i)), texts[i]);
    daemon.manager->ReadPersistentReservationInfoFiles();
    while (!daemon.manager->reservations.empty()) {
        const std::string key = daemon.manager->reservations.begin()->first;
        daemon.Info(key, true);
        daemon.Delta(key, {12345}, {});
        daemon.Create(key, {1, 2, 3}, kNoLimits, daemon.Reservation(key).info.pkey);
        if (daemon.Delete(key) != 0) return key + " stays";
    }
    return "";
}

}    // namespace

// A form feed, which no reservation file contains, ends a file of the input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::vector<std::string> texts;
    bool is_any_accepted = false;
    for (std::string text; std::getline(input, text, '\f');) {
        texts.push_back(text);
        texts.push_back(Sealed(text.substr(0, text.find('\0'))));
        for (const std::string& one : {text, texts.back()}) is_any_accepted = Unpack(one) != "bad" || is_any_accepted;
    }
    if (is_any_accepted && !InChild([&] { return StartUpWith(texts); }).empty()) std::abort();
    return 0;
}
