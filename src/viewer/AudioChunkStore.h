#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "model/MediaPackets.h"

namespace kestrune {

/// A chunk of PCM under the number that the store gave it. Cheap to copy: the samples are shared.
struct StoredAudioChunk {
  std::uint64_t sequence = 0;
  std::uint64_t presentationTimeMicroseconds = 0;  // the capture time of the chunk
  std::int64_t sampleRate = 0;
  std::int64_t channels = 0;
  std::int64_t frameCount = 0;
  SharedBytes pcm;  // interleaved signed 16-bit little-endian samples; never null
};

/// The newest sound, for viewers that fetch it. Bounded in chunks and in bytes; the oldest goes first.
/// Numbers are never used twice while the store lives, so that a viewer can tell a gap from a repetition. Any
/// thread may call.
class AudioChunkStore {
 public:
  static constexpr std::size_t kDefaultMaxChunks = 150;
  static constexpr std::size_t kDefaultMaxBytes = 3'145'728;

  /// Both above 0.
  explicit AudioChunkStore(std::size_t maxChunks = kDefaultMaxChunks,
                           std::size_t maxBytes = kDefaultMaxBytes);

  /// Numbers the chunk and keeps it, unless it is larger than the whole store; its number is used up even
  /// then.
  StoredAudioChunk append(AudioPCMChunk chunk);
  /// What follows the number `after`, oldest first: at most `limit` chunks of one sample rate and channel
  /// count and at most `maxBytes` of samples, except that the first chunk comes in any size. Both
  /// limits above 0.
  std::vector<StoredAudioChunk> chunks(std::uint64_t after, std::size_t limit, std::size_t maxBytes) const;
  /// The newest number in the store; of an empty store the last one given, 0 before any.
  std::uint64_t latestSequence() const;
  std::size_t count() const;
  /// Chunks that were refused, or evicted.
  std::uint64_t droppedItems() const;
  /// Forgets the chunks, not the numbers.
  void clear();

 private:
  const std::size_t maxChunks_;
  const std::size_t maxBytes_;
  mutable std::mutex lock_;  // guards everything below
  std::deque<StoredAudioChunk> chunks_;
  std::size_t storedBytes_ = 0;
  std::uint64_t nextSequence_ = 1;
  std::uint64_t droppedItems_ = 0;
};

}  // namespace kestrune
