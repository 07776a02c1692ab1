#include "runtime/ThreadName.h"

#include <pthread.h>

#include <string>

namespace kestrune {

void nameThread(std::string_view queueName) {
  constexpr std::size_t kLongest = 15;
  const auto dot = queueName.find_last_of('.');
  const std::string name(queueName.substr(dot == std::string_view::npos ? 0 : dot + 1).substr(0, kLongest));
  pthread_setname_np(pthread_self(), name.c_str());
}

}  // namespace kestrune
