#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Credentials.h"
#include "platform/RandomSource.h"

namespace kestrune {

/// A credential helper in memory, for one call at a time. Replies and failures come within the call.
class FakeCredentials final : public CredentialConnector {
 public:
  /// What ends a call. The answer follows every failure of the connection, and comes too late.
  enum class Behaviour { answer, noProxy, interrupt, invalidate, errorHandler };
  using Name = std::pair<std::string, std::string>;  // service and account

  std::unique_ptr<CredentialConnection> connect(const std::string& /*serviceName*/) override {
    return std::make_unique<Connection>(*this);
  }
  void setItem(const std::string& service, const std::string& account, std::string_view text) {
    items[{service, account}] = Bytes(text.begin(), text.end());
  }

  std::map<Name, Bytes> items;
  Behaviour behaviour = Behaviour::answer;
  std::optional<CredentialStatus> readStatus;  // of every read, which then gives no data
  CredentialStatus writeStatus = 0;
  int reads = 0;
  int writes = 0;
  int openConnections = 0;

 private:
  struct Connection final : CredentialConnection, CredentialHelperProtocol {
    explicit Connection(FakeCredentials& fake) : owner(fake) {}

    void setInvalidationHandler(std::function<void()> handler) override { onInvalidation = handler; }
    void setInterruptionHandler(std::function<void()> handler) override { onInterruption = handler; }
    void resume() override { ++owner.openConnections; }
    void invalidate() override { --owner.openConnections; }
    CredentialHelperProtocol* remoteObjectProxy(std::function<void()> errorHandler) override {
      onError = errorHandler;
      return owner.behaviour == Behaviour::noProxy ? nullptr : this;
    }

    void readCredential(const std::string& service, const std::string& account, ReadReply reply) override {
      ++owner.reads;
      failIfAsked();
      const auto found = owner.items.find({service, account});
      if (owner.readStatus || found == owner.items.end()) {
        return reply({}, owner.readStatus.value_or(kCredentialNotFound));
      }
      reply(found->second, kCredentialSuccess);
    }
    void writeCredential(const std::string& service, const std::string& account, const Bytes& data,
                         StatusReply reply) override {
      ++owner.writes;
      if (owner.writeStatus == 0) owner.items[{service, account}] = data;
      failIfAsked();
      reply(owner.writeStatus);
    }
    void removeCredential(const std::string& service, const std::string& account,
                          StatusReply reply) override {
      failIfAsked();
      reply(owner.items.erase({service, account}) > 0 ? kCredentialSuccess : kCredentialNotFound);
    }

    void failIfAsked() const {
      if (owner.behaviour == Behaviour::interrupt) onInterruption();
      if (owner.behaviour == Behaviour::invalidate) onInvalidation();
      if (owner.behaviour == Behaviour::errorHandler) onError();
    }

    FakeCredentials& owner;
    std::function<void()> onInvalidation, onInterruption, onError;
  };
};

/// Counts up from 0xF8, or fails with `status`.
class FakeRandomSource final : public RandomSource {
 public:
  std::int32_t copyBytes(std::span<std::uint8_t> destination) override {
    std::uint8_t next = 0xF8;
    for (auto& byte : destination) byte = next++;
    return status;
  }
  std::int32_t status = 0;
};

}  // namespace kestrune
