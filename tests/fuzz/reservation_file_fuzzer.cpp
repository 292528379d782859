// Any contents of reservation files: as they are, and sealed with the right checksum, so that what is behind the
// checksum is reached too. What is accepted must be exactly what packing it again gives, and a start-up over a
// directory with such files must leave reservations that can be changed and deleted.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "host/dov_msg.h"
#include "host/record_text.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

std::string Sealed(const std::string& body) {
    char seal[64];
    std::snprintf(seal, sizeof(seal), "checksum 0x%016lx\n", RecordTextChecksum(body));
    return body + seal;
}

// Returns whether the text is accepted.
bool IsAccepted(const std::string& text) {
    vesk_dov_msg* msg = nullptr;
    const int result = dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, text.c_str(), &msg);
    if ((result == 0) != (msg != nullptr)) std::abort();
    if (msg == nullptr) return false;

    char* buffer = nullptr;
    uint64_t length = 0;
    if (dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, msg, &buffer, &length) != 0) std::abort();
    if (std::string(buffer, length) != text.c_str()) std::abort();
    std::free(buffer);
    dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
    return true;
}

void StartUpWith(const std::vector<std::string>& texts) {
    TestDaemon daemon;
    daemon.expects_indexed_hcas = false;
    for (size_t i = 0; i < texts.size(); ++i) Write(daemon.PathOf(std::to_string(i)), texts[i]);
    daemon.manager->ReadPersistentReservationInfoFiles();
    while (!daemon.manager->reservations.empty()) {
        const std::string key = daemon.manager->reservations.begin()->first;
        daemon.Info(key, true);
        daemon.Delta(key, {12345}, {});
        daemon.Create(key, {1, 2, 3}, kNoLimits, daemon.Reservation(key).info.pkey);
        if (daemon.Delete(key) != 0) std::abort();
    }
}

// The stored reservations are loaded once in a process.
void StartUpInChild(const std::vector<std::string>& texts) {
    const pid_t child = fork();
    if (child == 0) {
        StartUpWith(texts);
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) std::abort();    // the fuzzer's clock interrupts
    }
    if (status != 0) std::abort();
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
        for (const std::string& one : {text, texts.back()}) is_any_accepted = IsAccepted(one) || is_any_accepted;
    }
    if (is_any_accepted) StartUpInChild(texts);
    return 0;
}
