// Where a camera keeps its GenICam description, and what is in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zuGenICam {

/// A description in the camera's own memory.
struct LocalUrl {
    std::string fileName;
    std::uint32_t address = 0;
    std::uint32_t size = 0;
};

/// "Local:name.ext;address;size", numbers in hexadecimal, as the standard has it; a query behind a '?' is passed over.
/// Empty for other schemes and for what is none, or none that can be: no bytes, or beyond 32-bit addresses.
std::optional<LocalUrl> parseLocalUrl(const std::string& url);

/// Reads camera memory, and throws if it can't.
using ReadMemory = std::function<void(std::uint32_t address, void* destination, std::size_t size)>;

/// What the camera says of its description.
struct Location {
    std::string url; ///< as it stands there, without control characters; empty if it names none
    std::optional<LocalUrl> local;
};

/// Reads the two URL registers of the standard; the first that is local, or else the first, is taken.
Location locate(const ReadMemory& read);

/// The location in the camera's memory. Throws std::runtime_error, with words for people, if there is none or the file
/// there has more bytes than `limit`.
const LocalUrl& requireLocal(const Location& location, std::size_t limit);

/// Whether these are the first bytes of a zip archive.
bool isZip(const std::vector<std::uint8_t>& bytes);

/// The archive's first file whose name ends in .xml, or else its first file. Throws std::runtime_error if there is
/// none, if it is damaged, or if it would unfold to more than `limit` bytes.
std::vector<std::uint8_t> unzip(const std::vector<std::uint8_t>& archive, std::size_t limit);

} // namespace zuGenICam
