// The GenICam description file that stands in the camera's memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace gevsim {

struct GenicamFile {
    std::string name; ///< "gevsim.xml", or "gevsim.zip"
    std::vector<std::uint8_t> bytes;
};

/// The XML text.
std::string genicamXml();

/// The file as it stands in the camera: the text, or zipped an archive that holds it deflated.
GenicamFile makeGenicamFile(bool zipped);

} // namespace gevsim
