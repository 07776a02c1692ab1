#include "server/WelcomeServer.h"

#include <array>
#include <chrono>
#include <exception>
#include <string_view>
#include <utility>

#include "runtime/Error.h"
#include "server/HTTPRequest.h"
#include "server/HTTPResponse.h"
#include "server/ReceiveBuffer.h"
#include "server/ServerLog.h"

namespace kestrune {
namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr int kPortsTried = 8;
constexpr std::size_t kMostVisitors = 32;  // a browser opens six connections to one host
constexpr std::size_t kLongestHead = 16'384;
constexpr std::size_t kLargestRead = 16'384;
constexpr Duration kPatience = std::chrono::seconds(10);  // for the request, and for taking the answer

struct Page {
  std::string_view path;
  std::string_view name;
  std::string_view extension;
};

constexpr std::array<Page, 10> kPages{{
    {"/", "index", "html"},
    {"/touch", "touch", "html"},
    {"/typing", "typing", "html"},
    {"/sound", "sound", "html"},
    {"/motion", "motion", "html"},
    {"/welcome.css", "welcome", "css"},
    {"/touch.js", "touch", "js"},
    {"/typing.js", "typing", "js"},
    {"/sound.js", "sound", "js"},
    {"/motion.js", "motion", "js"},
}};

std::string contentTypeOf(std::string_view extension) {
  return extension == "js" ? "text/javascript; charset=utf-8"
                           : "text/" + std::string(extension) + "; charset=utf-8";
}

HTTPResponse responseTo(const HTTPRequest& request, const Bundle& bundle) {
  if (request.method != "GET") return failureResponse(HTTPFailure::methodNotAllowed);
  for (const auto& page : kPages) {
    if (page.path != request.path) continue;
    const auto file = bundle.resource(page.name, page.extension, "Welcome");
    const auto bytes = file ? bundle.read(*file) : std::nullopt;
    if (!bytes) break;
    return uncachedResponse(contentTypeOf(page.extension),
                            {reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  }
  return failureResponse(HTTPFailure::notFound);
}

}  // namespace

struct WelcomeServer::Visitor {
  std::shared_ptr<TcpConnection> connection;
  ReceiveBuffer received;  // of the request; what follows it is discarded
  bool isAnswered = false;
  DelayedWork deadline;
};

WelcomeServer::WelcomeServer(std::shared_ptr<Network> network, std::shared_ptr<const Bundle> bundle)
    : network_(std::move(network)), queue_(network_->queue()), bundle_(std::move(bundle)) {}

WelcomeServer::~WelcomeServer() {
  // The last owner may be on any thread; sockets are cancelled on their queue.
  queue_->post([listener = std::move(listener_), visitors = std::move(visitors_)] {
    if (listener) listener->cancel();
    for (const auto& visitor : visitors) {
      visitor->deadline.cancel();
      visitor->connection->cancel();
    }
  });
}

void WelcomeServer::start(std::uint16_t firstPort, StartCompletion completion) {
  queue_->post([weak = weak_from_this(), firstPort, completion = std::move(completion)]() mutable {
    if (const auto self = weak.lock()) self->listen(firstPort, kPortsTried, std::move(completion));
  });
}

void WelcomeServer::listen(std::uint16_t port, int portsLeft, StartCompletion completion) {
  if (portsLeft == 0 || port == 0) {
    kServerLog.error("The welcome pages cannot be served: no port is free");
    completion(std::nullopt);
    return;
  }
  try {
    listener_ = network_->createListener({kHost, port});
  } catch (...) {
    kServerLog.error("The welcome pages cannot be served: " + localizedDescription(std::current_exception()));
    completion(std::nullopt);
    return;
  }
  listener_->setNewConnectionHandler([weak = weak_from_this()](std::shared_ptr<TcpConnection> connection) {
    if (const auto self = weak.lock()) self->accept(std::move(connection));
  });
  listener_->setStateHandler([weak = weak_from_this(), port, portsLeft, completion = std::move(completion)](
                                 TcpListener::State state, const std::string&) {
    const auto self = weak.lock();
    if (!self) return;
    if (state == TcpListener::State::ready) {
      completion(std::string("http://") + kHost + ":" + std::to_string(port) + "/");
    } else if (state == TcpListener::State::failed) {
      // The listener must not end within its own handler.
      self->queue_->post([weak, port, portsLeft, completion] {
        if (const auto again = weak.lock()) again->listen(port + 1, portsLeft - 1, completion);
      });
    }
  });
  listener_->start();
}

void WelcomeServer::accept(std::shared_ptr<TcpConnection> connection) {
  if (visitors_.size() >= kMostVisitors) {
    connection->cancel();
    return;
  }
  const auto visitor = std::make_shared<Visitor>();
  visitor->connection = std::move(connection);
  visitors_.insert(visitor);
  visitor->deadline = queue_->postAfter(kPatience, [weak = weak_from_this(), gone = std::weak_ptr(visitor)] {
    const auto self = weak.lock();
    const auto late = gone.lock();
    if (self && late) self->end(late);
  });
  visitor->connection->setStateHandler([weak = weak_from_this(), gone = std::weak_ptr(visitor)](
                                           TcpConnection::State state, const std::string&) {
    const auto self = weak.lock();
    const auto known = gone.lock();
    if (!self || !known) return;
    if (state == TcpConnection::State::ready) {
      self->receive(known);
    } else {
      self->end(known);
    }
  });
  visitor->connection->start();
}

void WelcomeServer::receive(const std::shared_ptr<Visitor>& visitor) {
  visitor->connection->receive(
      1, kLargestRead,
      [weak = weak_from_this(), gone = std::weak_ptr(visitor)](ByteView bytes, bool isComplete,
                                                               const std::optional<std::string>& failure) {
        const auto self = weak.lock();
        const auto known = gone.lock();
        if (!self || !known) return;
        if (!known->isAnswered) known->received.append(bytes);
        const auto size = known->isAnswered ? 0 : known->received.sizeThrough("\r\n\r\n");
        if (size > 0) {
          const auto head = known->received.view().first(size);
          self->answer(known, {reinterpret_cast<const char*>(head.data()), head.size()});
        } else if (isComplete || failure || known->received.size() > kLongestHead) {
          self->end(known);
        } else {
          self->receive(known);
        }
      });
}

void WelcomeServer::answer(const std::shared_ptr<Visitor>& visitor, std::string_view head) {
  visitor->isAnswered = true;
  const auto request = HTTPRequest::parse(head);
  auto response = request ? responseTo(*request, *bundle_) : failureResponse(HTTPFailure::badRequest);
  visitor->connection->send(serializeResponse(std::move(response)),
                            [weak = weak_from_this(), gone = std::weak_ptr(visitor)](bool succeeded) {
                              const auto self = weak.lock();
                              const auto known = gone.lock();
                              if (!self || !known) return;
                              if (!succeeded) return self->end(known);
                              // The browser closes in its turn; until then nothing may be lost to a reset.
                              known->connection->finishSending();
                              self->receive(known);
                            });
}

void WelcomeServer::end(const std::shared_ptr<Visitor>& visitor) {
  visitor->deadline.cancel();
  visitor->connection->setStateHandler({});
  visitor->connection->cancel();
  visitors_.erase(visitor);
}

}  // namespace kestrune
