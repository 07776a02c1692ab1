#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Credentials.h"
#include "platform/RandomSource.h"

namespace kestrune {

/// A credential helper in memory. Replies and failures come within the call.
class FakeCredentials final : public CredentialConnector,
                              public std::enable_shared_from_this<FakeCredentials> {
 public:
  enum class Behaviour {
    answer,
    noProxy,
    interrupt,       // in place of an answer
    invalidate,      // in place of an answer
    errorHandler,    // in place of an answer
    answerThenFail,  // the answer, then every failure
    failThenAnswer,
  };

  std::unique_ptr<CredentialConnection> connect(const std::string& serviceName) override;

  std::optional<Bytes> item(const std::string& service, const std::string& account) const {
    std::lock_guard guard(lock_);
    const auto found = items_.find({service, account});
    if (found == items_.end()) return {};
    return found->second;
  }
  void setItem(const std::string& service, const std::string& account, std::string_view text) {
    std::lock_guard guard(lock_);
    items_[{service, account}] = Bytes(text.begin(), text.end());
  }
  void removeItem(const std::string& service, const std::string& account) {
    std::lock_guard guard(lock_);
    items_.erase({service, account});
  }

  std::atomic<Behaviour> behaviour{Behaviour::answer};
  /// In place of what an operation would give; a read then gives no data.
  std::atomic<CredentialStatus> readStatus{0}, writeStatus{0};
  std::atomic<bool> omitsData{false};
  std::atomic<int> reads{0}, writes{0};
  std::atomic<int> openConnections{0};
  std::vector<std::string> serviceNames;  // by one caller at a time

 private:
  mutable std::mutex lock_;
  std::map<std::pair<std::string, std::string>, Bytes> items_;  // guarded by lock_
};

class FakeCredentialConnection final : public CredentialConnection, public CredentialHelperProtocol {
 public:
  explicit FakeCredentialConnection(std::shared_ptr<FakeCredentials> owner) : owner_(std::move(owner)) {}

  void setInvalidationHandler(std::function<void()> handler) override {
    onInvalidation_ = std::move(handler);
  }
  void setInterruptionHandler(std::function<void()> handler) override {
    onInterruption_ = std::move(handler);
  }
  void resume() override { ++owner_->openConnections; }
  void invalidate() override { --owner_->openConnections; }
  CredentialHelperProtocol* remoteObjectProxy(std::function<void()> errorHandler) override {
    onError_ = std::move(errorHandler);
    return owner_->behaviour == Behaviour::noProxy ? nullptr : this;
  }

  void readCredential(const std::string& service, const std::string& account, ReadReply reply) override {
    ++owner_->reads;
    auto data = owner_->item(service, account);
    const CredentialStatus status = owner_->readStatus != 0 ? owner_->readStatus.load()
                                    : data                  ? kCredentialSuccess
                                                            : kCredentialNotFound;
    if (status != 0 || owner_->omitsData) data.reset();
    finish([&] { reply(data, status); });
  }
  void writeCredential(const std::string& service, const std::string& account, const Bytes& data,
                       StatusReply reply) override {
    ++owner_->writes;
    if (owner_->writeStatus == 0) owner_->setItem(service, account, std::string(data.begin(), data.end()));
    finish([&] { reply(owner_->writeStatus); });
  }
  void removeCredential(const std::string& service, const std::string& account, StatusReply reply) override {
    const bool isFound = owner_->item(service, account).has_value();
    owner_->removeItem(service, account);
    finish([&] { reply(isFound ? kCredentialSuccess : kCredentialNotFound); });
  }

 private:
  using Behaviour = FakeCredentials::Behaviour;

  void finish(const std::function<void()>& answer) const {
    const Behaviour behaviour = owner_->behaviour;
    if (behaviour == Behaviour::answer || behaviour == Behaviour::answerThenFail) answer();
    if (behaviour == Behaviour::errorHandler) onError_();
    if (behaviour == Behaviour::answer || behaviour == Behaviour::errorHandler) return;
    if (behaviour != Behaviour::invalidate) onInterruption_();
    if (behaviour != Behaviour::interrupt) onInvalidation_();
    if (behaviour == Behaviour::failThenAnswer) answer();
  }

  const std::shared_ptr<FakeCredentials> owner_;
  std::function<void()> onInvalidation_;
  std::function<void()> onInterruption_;
  std::function<void()> onError_;
};

inline std::unique_ptr<CredentialConnection> FakeCredentials::connect(const std::string& serviceName) {
  {
    std::lock_guard guard(lock_);
    serviceNames.push_back(serviceName);
  }
  return std::make_unique<FakeCredentialConnection>(shared_from_this());
}

/// Counts up from 0xF8, or fails with `status`.
class FakeRandomSource final : public RandomSource {
 public:
  std::int32_t copyBytes(std::span<std::uint8_t> destination) override {
    if (status != 0) return status;
    std::uint8_t next = 0xF8;
    for (auto& byte : destination) byte = next++;
    return 0;
  }
  std::int32_t status = 0;
};

}  // namespace kestrune
