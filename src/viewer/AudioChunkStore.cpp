#include "viewer/AudioChunkStore.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace kestrune {

AudioChunkStore::AudioChunkStore(std::size_t maxChunks, std::size_t maxBytes)
    : maxChunks_(maxChunks), maxBytes_(maxBytes) {
  assert(maxChunks > 0 && maxBytes > 0);
}

StoredAudioChunk AudioChunkStore::append(AudioPCMChunk chunk) {
  auto pcm = std::make_shared<const Bytes>(std::move(chunk.pcm));
  const auto size = pcm->size();
  std::lock_guard guard(lock_);
  StoredAudioChunk stored{nextSequence_++,  chunk.captureTimeMicroseconds,
                          chunk.sampleRate, chunk.channels,
                          chunk.frameCount, std::move(pcm)};
  if (size > maxBytes_) {
    ++droppedItems_;
    return stored;
  }
  chunks_.push_back(stored);
  storedBytes_ += size;
  while (chunks_.size() > maxChunks_ || storedBytes_ > maxBytes_) {
    storedBytes_ -= chunks_.front().pcm->size();
    chunks_.pop_front();
    ++droppedItems_;
  }
  return stored;
}

std::vector<StoredAudioChunk> AudioChunkStore::chunks(std::uint64_t after, std::size_t limit,
                                                      std::size_t maxBytes) const {
  assert(limit > 0 && maxBytes > 0);
  std::vector<StoredAudioChunk> batch;
  std::size_t batchBytes = 0;
  std::lock_guard guard(lock_);
  auto next = std::upper_bound(
      chunks_.begin(), chunks_.end(), after,
      [](std::uint64_t sequence, const StoredAudioChunk& chunk) { return sequence < chunk.sequence; });
  for (; next != chunks_.end() && batch.size() < limit; ++next) {
    if (!batch.empty()) {
      const auto& first = batch.front();
      if (next->sampleRate != first.sampleRate || next->channels != first.channels) break;
      if (batchBytes + next->pcm->size() > maxBytes) break;
    }
    batchBytes += next->pcm->size();
    batch.push_back(*next);
  }
  return batch;
}

std::uint64_t AudioChunkStore::latestSequence() const {
  std::lock_guard guard(lock_);
  return chunks_.empty() ? nextSequence_ - 1 : chunks_.back().sequence;
}

std::size_t AudioChunkStore::count() const {
  std::lock_guard guard(lock_);
  return chunks_.size();
}

std::uint64_t AudioChunkStore::droppedItems() const {
  std::lock_guard guard(lock_);
  return droppedItems_;
}

void AudioChunkStore::clear() {
  std::lock_guard guard(lock_);
  chunks_.clear();
  storedBytes_ = 0;
}

}  // namespace kestrune
