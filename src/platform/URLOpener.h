#pragma once

#include <string>

namespace kestrune {

/// Opens an address in the user's own browser.
class URLOpener {
 public:
  virtual ~URLOpener() = default;
  /// Whether a program was started for it; the address is http or https, else false. Main queue; does not
  /// wait for that program.
  virtual bool openURL(const std::string& url) = 0;
};

}  // namespace kestrune
