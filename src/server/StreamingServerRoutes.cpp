#include <charconv>
#include <chrono>
#include <string>
#include <utility>

#include "server/StreamingServerTurns.h"
#include "server/ViewerAssets.h"

namespace kestrune {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kMaximumHeader = 16'384;
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr Duration kAudioPollLength = seconds(10);
constexpr Duration kAudioBatchWait = milliseconds(250);
constexpr Duration kAudioPollTick = milliseconds(20);
constexpr std::size_t kAudioBatchChunks = 10;
constexpr std::size_t kAudioBatchBytes = 262'144;

constexpr const char* kJsonContentType = "application/json; charset=utf-8";

/// The number that a poll continues from; 0, the oldest, for anything that is not one.
std::uint64_t sequenceOf(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  std::uint64_t value = 0;
  const auto end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end ? value : 0;
}

HTTPResponse noContentResponse() {
  HTTPResponse response;
  response.status = 204;
  response.reason = "No Content";
  return response;
}

HTTPResponse audioBatchResponse(const std::vector<StoredAudioChunk>& batch) {
  std::size_t size = 0;
  std::int64_t frames = 0;
  for (const auto& chunk : batch) {
    size += chunk.pcm->size();
    frames += chunk.frameCount;
  }
  const auto& first = batch.front();
  auto response = uncachedResponse("application/octet-stream", {});
  response.headers["X-Audio-Sequence"] = std::to_string(batch.back().sequence);
  response.headers["X-Audio-PTS"] = std::to_string(first.presentationTimeMicroseconds);
  response.headers["X-Audio-Sample-Rate"] = std::to_string(first.sampleRate);
  response.headers["X-Audio-Channels"] = std::to_string(first.channels);
  response.headers["X-Audio-Frames"] = std::to_string(frames);
  response.headers["X-Audio-Format"] = "s16le";
  response.body.reserve(size);
  for (const auto& chunk : batch) {
    response.body.insert(response.body.end(), chunk.pcm->begin(), chunk.pcm->end());
  }
  return response;
}

}  // namespace

void StreamingServer::processHTTPBuffer(const Client& client) {
  auto& buffer = client->readingRequest()->received;
  const auto size = buffer.sizeThrough(kHeaderEnd);
  if (size == 0) {
    if (buffer.size() > kMaximumHeader) send(failureResponse(HTTPFailure::headerTooLarge), client);
    return;
  }
  const auto block = buffer.view().first(size);
  const auto request = HTTPRequest::parse({reinterpret_cast<const char*>(block.data()), block.size()});
  buffer.consume(size);
  if (request) {
    route(*request, client);
  } else {
    send(failureResponse(HTTPFailure::badRequest), client);
  }
}

void StreamingServer::route(const HTTPRequest& request, const Client& client) {
  const auto& path = request.path;
  if (request.method != "GET") {
    send(failureResponse(HTTPFailure::methodNotAllowed), client);
  } else if (path == "/stream") {
    upgradeWebSocket(request, client);
  } else if (path == "/health") {
    send(uncachedResponse(kJsonContentType, R"({"ok":true})"), client);
  } else if (path == "/status") {
    if (!authorizeRequest(request, client)) return;
    send(uncachedResponse(kJsonContentType, encodeSnapshot(currentSnapshot()).value_or("{}")), client);
  } else if (path == "/audio") {
    if (!authorizeRequest(request, client)) return;
    const auto after = request.query.find("after");
    const auto now = clock_->continuousNow();
    client->beginPoll(after == request.query.end() ? 0 : sequenceOf(after->second), now + kAudioPollLength,
                      now + kAudioBatchWait);
    lookForAudio(client);
  } else if (path == "/favicon.ico") {
    send(noContentResponse(), client);
  } else {
    sendAsset(path, client);
  }
}

void StreamingServer::sendAsset(const std::string& path, const Client& client) {
  const auto asset = assetForPath(path);
  auto bytes = asset ? loadViewerResource(*bundle_, asset->resourcePath) : std::nullopt;
  if (!bytes) {
    send(failureResponse(HTTPFailure::notFound), client);
    return;
  }
  HTTPResponse response;
  response.headers["Content-Type"] = asset->contentType;
  response.headers["Cache-Control"] = asset->cacheControl;
  response.body = std::move(*bytes);
  send(std::move(response), client);
}

void StreamingServer::lookForAudio(const Client& client) {
  auto& poll = *client->audioPoll();
  const auto batch = audioStore_->chunks(poll.after, kAudioBatchChunks, kAudioBatchBytes);
  const auto now = clock_->continuousNow();
  if (batch.size() == kAudioBatchChunks || (!batch.empty() && now >= poll.batchDeadline)) {
    send(audioBatchResponse(batch), client);
    return;
  }
  if (now >= poll.deadline) {
    auto response = noContentResponse();
    response.headers["Cache-Control"] = "no-store";
    response.headers["X-Audio-Sequence"] = std::to_string(audioStore_->latestSequence());
    send(std::move(response), client);
    return;
  }
  poll.nextLook =
      queue_->postAfter(kAudioPollTick, whileAlive(client, [](StreamingServer& server, const Client& self) {
                          if (self->audioPoll()) server.lookForAudio(self);
                        }));
}

}  // namespace kestrune
