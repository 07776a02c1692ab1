#pragma once

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/HTTPClient.h"

namespace kestrune {

/// Keeps the requests until the test answers them, the oldest first.
class FakeHTTPClient final : public HTTPClient {
 public:
  void send(HTTPClientRequest request, ResponseHandler handler) override {
    requests.push_back(std::move(request));
    handlers_.push_back(std::move(handler));
  }
  std::size_t waiting() const { return handlers_.size(); }
  void answer(int status, std::string_view body) {
    take()({.status = status, .body = Bytes(body.begin(), body.end())}, nullptr);
  }
  void fail(std::exception_ptr failure) { take()({}, std::move(failure)); }

  std::vector<HTTPClientRequest> requests;  // answered ones too

 private:
  ResponseHandler take() {
    ResponseHandler handler = std::move(handlers_.at(0));
    handlers_.erase(handlers_.begin());
    return handler;
  }

  std::vector<ResponseHandler> handlers_;
};

}  // namespace kestrune
