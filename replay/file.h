// Whole files, and what goes wrong with what the user named.

#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

// Input that cannot be used. The text names the file and line, or the option, at fault.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The file's content. Throws InputError.
std::string ReadFile(const std::string& path);

// Gives the file this content, all of it or none: what was there stays until the new content is on disk.
// Throws std::runtime_error.
void ReplaceFile(const std::string& path, std::string_view content);

// The text with everything but printable ASCII turned into '?', for messages and pictures.
std::string Printable(std::string_view text);
