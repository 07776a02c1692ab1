#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "platform/Bytes.h"

namespace kestrune {

/// Bytes that arrived and are not read yet. Taking from the front costs nothing until the next append, so
/// that many small frames in one read are read in one pass. The caller of append() limits what stays.
class ReceiveBuffer {
 public:
  void append(ByteView bytes) {
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }
  ByteView view() const { return ByteView(bytes_).subspan(start_); }
  std::size_t size() const { return bytes_.size() - start_; }
  bool empty() const { return size() == 0; }

  /// `count` at most size().
  void consume(std::size_t count) {
    start_ += count;
    searched_ = 0;
    if (start_ == bytes_.size()) release();
  }
  /// Drops everything and gives the memory back.
  void release() {
    Bytes().swap(bytes_);
    start_ = 0;
    searched_ = 0;
  }

  /// The size of the part up to and including the first `terminator`; 0 if it is not there yet. Meant to be
  /// asked after every append until it answers: what was searched is not searched again, however small the
  /// pieces.
  std::size_t sizeThrough(std::string_view terminator) {
    const auto bytes = view();
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(searched_, bytes.size()));
    const auto found = std::search(from, bytes.end(), terminator.begin(), terminator.end());
    if (found != bytes.end()) {
      return static_cast<std::size_t>(found - bytes.begin()) + terminator.size();
    }
    searched_ = bytes.size() - std::min(bytes.size(), terminator.size() - 1);
    return 0;
  }

 private:
  Bytes bytes_;
  std::size_t start_ = 0;     // of what is not taken yet
  std::size_t searched_ = 0;  // bytes after start_ that hold no terminator
};

}  // namespace kestrune
