#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.h"
#include "platform/linux/files/PrivateDirectory.h"

namespace kestrune::linux_platform {

/// The items in `directory`/credentials.json. Constructed under the directory's lock and holds it, so that
/// what is read stays true until it is written back; make one for each operation. A file that cannot be
/// understood is set aside with a line in the log, never overwritten. Failures are std::system_error.
class CredentialFile {
 public:
  struct Item {
    std::string service;
    std::string account;
    /// Absent: the Secret Service keeps it.
    std::optional<Bytes> data;
    /// The Secret Service has an older item of this name: it was out of reach when `data` was written.
    bool hasOlder = false;
  };

  explicit CredentialFile(const std::filesystem::path& directory);

  /// Null if there is none.
  const Item* find(const std::string& service, const std::string& account) const;
  /// Stores the item in place of any of its name. Durable on return.
  void put(Item item);
  /// Durable on return.
  void remove(const std::string& service, const std::string& account);

 private:
  void load();
  void store() const;

  const PrivateDirectory directory_;
  const UniqueDescriptor locked_;
  std::vector<Item> items_;
};

}  // namespace kestrune::linux_platform
