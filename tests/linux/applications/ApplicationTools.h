#pragma once

#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/applications/LinuxApplications.h"

namespace kestrune::testing {

/// Opens an application and waits for the answer. Throws what it failed with.
inline std::shared_ptr<RunningApplication> open(Applications& applications, const Application& application,
                                                const std::vector<std::string>& arguments = {}) {
  const auto answer = std::make_shared<std::promise<std::shared_ptr<RunningApplication>>>();
  applications.open(application, {arguments, 0}, [answer](auto opened, std::exception_ptr failure) {
    failure ? answer->set_exception(failure) : answer->set_value(std::move(opened));
  });
  auto result = answer->get_future();
  if (result.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    throw std::runtime_error("no answer");
  }
  return result.get();
}

}  // namespace kestrune::testing
