#pragma once

// Walks a sensorstore partition image the way the library does, with every
// read bounded, and describes what it finds.

#include <cstdio>
#include <string>
#include <vector>

namespace kivhal {
namespace tools {

// Prints the header, every record and how the walk ends. Returns true when
// the image is well formed and the walk ends exactly at data_len.
bool dump_sensorstore(const std::vector<uint8_t>& image, size_t image_size,
                      const std::string& channel, FILE* out);

// Reads the header and at most data_len bytes of the image at `path`;
// `image_size` gets the bytes the file holds (as far as read). Throws
// usage_error when the file cannot be read.
std::vector<uint8_t> read_sensorstore_image(const std::string& path, size_t* image_size);

}  // namespace tools
}  // namespace kivhal
