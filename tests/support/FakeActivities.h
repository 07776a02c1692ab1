#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Activities.h"
#include "platform/LoginItem.h"

namespace kestrune {

/// Records the activities, and which of them have ended.
class FakeActivities final : public Activities {
 public:
  struct Record {
    ActivityOptions options = 0;
    std::string reason;
    bool isRunning = true;
  };
  std::vector<std::shared_ptr<Record>> begun;

  bool isHeld() const { return !begun.empty() && begun.back()->isRunning; }

  std::unique_ptr<Activity> beginActivity(ActivityOptions options, std::string reason) override {
    begun.push_back(std::make_shared<Record>(Record{options, std::move(reason)}));
    return std::make_unique<Running>(begun.back());
  }

 private:
  struct Running final : Activity {
    explicit Running(std::shared_ptr<Record> kept) : record(std::move(kept)) {}
    ~Running() override { record->isRunning = false; }
    const std::shared_ptr<Record> record;
  };
};

class FakeLoginItem final : public LoginItem {
 public:
  Status status() const override { return current_; }
  void registerItem() override { current_ = Status::enabled; }
  void unregisterItem() override { current_ = Status::notRegistered; }

 private:
  Status current_ = Status::notRegistered;
};

}  // namespace kestrune
