#include "platform/linux/credentials/HelperCredentialConnector.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/linux/credentials/CredentialMessages.h"
#include "platform/linux/credentials/HelperProcess.h"
#include "platform/linux/files/UserDirectories.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr std::string_view kServiceName = "com.fennwick.Kestrune.CredentialHelper";

/// A handler that can be taken away for good: once set() has returned, the one before neither runs nor will.
/// No lock is held while it runs. It must not set itself.
class ClearableHandler {
 public:
  void set(std::function<void()> handler) {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [this] { return !isRunning_; });
    handler_ = std::move(handler);
  }
  void call() {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [this] { return !isRunning_; });
    if (!handler_) return;
    isRunning_ = true;
    const auto handler = handler_;
    guard.unlock();
    handler();
    guard.lock();
    isRunning_ = false;
    idle_.notify_all();
  }

 private:
  std::mutex lock_;  // guards the rest
  std::condition_variable idle_;
  std::function<void()> handler_;
  bool isRunning_ = false;
};

/// The caller's side of one helper process. One caller; replies come on a thread of the connection, but a
/// failure to start that thread comes within the call.
class HelperConnection final : public CredentialConnection, public CredentialHelperProtocol {
 public:
  explicit HelperConnection(std::filesystem::path helper) : helper_(std::move(helper)) {}
  ~HelperConnection() override { invalidate(); }

  void setInvalidationHandler(std::function<void()> handler) override {
    onInvalidated_.set(std::move(handler));
  }
  void setInterruptionHandler(std::function<void()> handler) override {
    onInterrupted_.set(std::move(handler));
  }

  void resume() override {
    if (process_ || thread_.joinable()) return;
    try {
      if (helper_.empty()) throw std::runtime_error("There is no such service");
      process_.emplace(helper_);
    } catch (const std::exception& error) {
      kLog.error(error.what());
    }
  }

  void invalidate() override {
    if (process_) process_->hangUp();
    if (thread_.joinable()) thread_.join();
    process_.reset();
  }

  CredentialHelperProtocol* remoteObjectProxy(std::function<void()> errorHandler) override {
    onError_ = std::move(errorHandler);
    return this;
  }

  void readCredential(const std::string& service, const std::string& account, ReadReply reply) override {
    ask({CredentialOperation::read, service, account, {}},
        [reply = std::move(reply)](CredentialReply answer) { reply(std::move(answer.data), answer.status); });
  }
  void writeCredential(const std::string& service, const std::string& account, const Bytes& data,
                       StatusReply reply) override {
    ask({CredentialOperation::write, service, account, data},
        [reply = std::move(reply)](const CredentialReply& answer) { reply(answer.status); });
  }
  void removeCredential(const std::string& service, const std::string& account, StatusReply reply) override {
    ask({CredentialOperation::remove, service, account, {}},
        [reply = std::move(reply)](const CredentialReply& answer) { reply(answer.status); });
  }

 private:
  void ask(CredentialRequest request, std::function<void(CredentialReply)> reply) {
    if (thread_.joinable()) return;  // a connection serves one request
    try {
      startThread(std::move(request), std::move(reply));
    } catch (const std::system_error& error) {  // too many threads, or too little memory for one
      kLog.error(std::string("The credential helper cannot be asked: ") + error.what());
      onInvalidated_.call();
    }
  }

  void startThread(CredentialRequest request, std::function<void(CredentialReply)> reply) {
    thread_ = std::thread([this, request = std::move(request), reply = std::move(reply)] {
      if (!request.isWithinLimits()) return reply({kCredentialParameterError, std::nullopt});
      if (!process_) return onInvalidated_.call();
      std::optional<CredentialReply> answer;
      if (sendCredentialMessage(process_->socket(), encode(request))) {
        if (const auto message = receiveCredentialMessage(process_->socket())) {
          answer = decodeCredentialReply(*message);
        }
      }
      if (answer) return reply(std::move(*answer));
      onInterrupted_.call();
      if (onError_) onError_();
    });
  }

  const std::filesystem::path helper_;
  ClearableHandler onInvalidated_;
  ClearableHandler onInterrupted_;
  // By the caller, before the thread starts; by the thread from then on.
  std::function<void()> onError_;
  std::optional<HelperProcess> process_;
  std::thread thread_;
};

}  // namespace

HelperCredentialConnector::HelperCredentialConnector()
    : HelperCredentialConnector(runningExecutable().parent_path() / "kestrune-credential-helper") {}

HelperCredentialConnector::HelperCredentialConnector(std::filesystem::path helper)
    : helper_(std::move(helper)) {}

std::unique_ptr<CredentialConnection> HelperCredentialConnector::connect(const std::string& serviceName) {
  return std::make_unique<HelperConnection>(serviceName == kServiceName ? helper_ : std::filesystem::path());
}

}  // namespace kestrune::linux_platform
