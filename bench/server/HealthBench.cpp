// Requests per second over real sockets: one connection, one request and one answer each, from one client.

#include <benchmark/benchmark.h>

#include <future>

#include "linux/network/LoopbackPeer.h"
#include "platform/linux/network/AsioNetwork.h"
#include "runtime/Log.h"
#include "server/StreamingServer.h"
#include "support/FakeBundle.h"

namespace kestrune {
namespace {

struct Tokens final : ViewerTokenSource {
  std::string token() override { return "token"; }
};

void healthRequest(benchmark::State& state) {
  setLogSink(nullptr);
  const auto port = LoopbackPeer::freePort();
  const auto network = std::make_shared<linux_platform::AsioNetwork>();
  const auto server = std::make_shared<StreamingServer>(
      network, std::make_shared<FakeBundle>(), std::make_shared<Tokens>(),
      std::make_shared<AudioChunkStore>(), std::make_shared<VideoPacketStore>(), systemClock(), port);
  std::promise<void> started;
  server->start([&started](std::exception_ptr failure) {
    if (failure) {
      started.set_exception(failure);
    } else {
      started.set_value();
    }
  });
  started.get_future().get();
  for (auto _ : state) {
    const LoopbackPeer peer(port);
    peer.send("GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    if (peer.receive(65'536).find("{\"ok\":true}") == std::string::npos) {
      state.SkipWithError("no answer");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(healthRequest)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace
}  // namespace kestrune
