#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace kestrune {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;
/// Bytes that several routes send without a copy; never changed after they were shared.
using SharedBytes = std::shared_ptr<const Bytes>;

/// One message for a connection in two pieces that are written with one gathered write: what is built for
/// this message alone, and what is shared with others. Either may be empty.
struct GatheredBytes {
  Bytes head;
  SharedBytes body;

  std::size_t size() const { return head.size() + (body ? body->size() : 0); }
};

}  // namespace kestrune
