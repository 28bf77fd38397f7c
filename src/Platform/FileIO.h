// Small descriptor helpers shared by the file layers (atomic files, the journal).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zub {

/// Writes every byte, retrying interrupted and partial writes. False (errno set)
/// on the first real error.
bool writeAll(int fd, const std::uint8_t* data, std::size_t size);

}  // namespace zub
