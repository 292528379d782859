// The reservation files in the persistent directory: what operators see of the reservations, and may put there.
//
// The manager itself writes into a staging directory inside; a file appears under its real name whole, by renaming, and
// only when what it holds has been committed to the store.

#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace reservationd {

class ReservationFiles {
public:
    // Makes the staging directory where it is missing, and empties it. Throws std::filesystem::filesystem_error.
    explicit ReservationFiles(const std::string& dir);

    // Where the manager may write what it likes.
    const std::string& staging_dir() const { return staging_dir_; }
    void EmptyStaging();

    // Before the manager loads the directory: gives each good file the name that its record's key asks for, so that a
    // later deletion finds it. One whose name is taken, by another file or by one of `stored_keys`, or whose key
    // clients could not use (see FaultOfKey), is set aside in the directory "ignored". `read_key` reads the key from
    // the file with this path, or nothing when the file is damaged.
    void PrepareToLoad(const std::set<std::string>& stored_keys,
                       const std::function<std::optional<std::string>(const std::string& path)>& read_key);

    // Whether the key's file holds exactly this; without a record, whether there is no file.
    bool Holds(const std::string& key, const std::optional<std::string>& record) const;

    // Makes the key's file so. At no moment is there a partial one. What the manager has staged is used if it is this
    // record, as it mostly is. Throws std::system_error, which names the file.
    void Write(const std::string& key, const std::optional<std::string>& record);

    // Returns when the files of these keys, or their absence, survive the end of the machine's power.
    void Sync(const std::set<std::string>& keys);

private:
    std::string PathOf(const std::string& key) const;
    void SetAside(const std::string& name, const std::string& reason);

    std::string dir_;
    std::string staging_dir_;
};

// Why no file name or no message can hold this key, as the end of a sentence ("contains a slash"), or "".
std::string FaultOfKey(std::string_view key);

}    // namespace reservationd
