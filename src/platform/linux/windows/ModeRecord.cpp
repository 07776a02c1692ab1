#include "platform/linux/windows/ModeRecord.h"

#include <unistd.h>

#include <cctype>
#include <fstream>
#include <string_view>
#include <system_error>

#include "platform/linux/files/PrivateDirectory.h"
#include "platform/linux/files/ProcessStatus.h"
#include "platform/support/Json.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr std::size_t kLargestRecord = 1 << 16;

/// Process numbers and times count from the start of the system.
std::string bootIdentifier() {
  std::string text;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
  return text;
}

JsonValue toJson(const DisplayMode& mode) {
  return JsonValue::Object{{"id", std::uint64_t{mode.id}},
                           {"width", mode.width},
                           {"height", mode.height},
                           {"refreshRate", mode.refreshRate},
                           {"isUsableForDesktop", mode.isUsableForDesktop}};
}

template <class Integer>
Integer integerIn(const JsonValue& value, std::string_view name) {
  const JsonValue* found = value.find(name);
  return static_cast<Integer>(found != nullptr ? found->integer().value_or(0) : 0);
}

DisplayMode modeFrom(const JsonValue* value) {
  if (value == nullptr) return {};
  const JsonValue* rate = value->find("refreshRate");
  const JsonValue* isUsable = value->find("isUsableForDesktop");
  return {integerIn<std::uint32_t>(*value, "id"), integerIn<int>(*value, "width"),
          integerIn<int>(*value, "height"), rate != nullptr ? rate->number().value_or(0) : 0,
          isUsable != nullptr && isUsable->boolean().value_or(false)};
}

}  // namespace

struct ModeRecords::Written {
  ModeRecord record;
  std::string boot;
  ProcessStatus writer;

  bool isOfThisBoot() const { return boot == bootIdentifier(); }
  bool isWriterRunning() const {
    const auto now = readProcessStatus(writer.id);
    return now && now->isSameProcess(writer) && !now->hasEnded;
  }
};

ModeRecords::ModeRecords(std::filesystem::path folder, std::string displayName)
    : folder_(std::move(folder)), displayName_(std::move(displayName)) {}

std::string ModeRecords::fileName(const std::string& output) const {
  std::string name = "display-mode";
  for (const std::string& part : {displayName_, output}) {
    name += '-';
    for (const char character : part) {
      // Names of displays may be paths.
      const bool isPlain = std::isalnum(static_cast<unsigned char>(character)) != 0;
      name += isPlain ? std::string(1, character)
                      : "_" + std::to_string(static_cast<unsigned char>(character)) + "_";
    }
  }
  return name + ".json";
}

void ModeRecords::write(const std::string& output, const ModeRecord& record) const {
  JsonValue::Array moves;
  for (const auto& each : record.moves) {
    moves.push_back(JsonValue::Object{{"controller", std::uint64_t{each.controller}},
                                      {"fromX", each.fromX},
                                      {"fromY", each.fromY},
                                      {"toX", each.toX},
                                      {"toY", each.toY}});
  }
  const auto writer = readProcessStatus(getpid()).value_or(ProcessStatus{});
  const std::string text = serializeJson(JsonValue::Object{{"boot", bootIdentifier()},
                                                           {"process", writer.id},
                                                           {"startTime", writer.startTime},
                                                           {"original", toJson(record.original)},
                                                           {"set", toJson(record.set)},
                                                           {"moves", std::move(moves)}});
  try {
    PrivateDirectory(folder_).write(fileName(output),
                                    {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  } catch (const std::system_error& failure) {
    kLog.error("The display mode to go back to cannot be written down: " + failure.code().message());
  }
}

void ModeRecords::remove(const std::string& output) const {
  std::error_code failure;
  std::filesystem::remove(folder_ / fileName(output), failure);
  if (failure) kLog.error("The record of a display mode cannot be removed: " + failure.message());
}

std::optional<ModeRecords::Written> ModeRecords::read(const std::string& output) const {
  std::error_code failure;
  if (!std::filesystem::exists(folder_ / fileName(output), failure)) return std::nullopt;
  std::optional<JsonValue> value;
  try {
    if (const auto bytes = PrivateDirectory(folder_).read(fileName(output), kLargestRecord)) {
      value = parseJson({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
    }
  } catch (const std::system_error& error) {
    kLog.error("The record of a display mode cannot be read: " + error.code().message());
  }
  if (!value) return std::nullopt;
  Written written;
  const JsonValue* boot = value->find("boot");
  if (boot != nullptr && boot->string() != nullptr) written.boot = *boot->string();
  written.writer.id = integerIn<pid_t>(*value, "process");
  written.writer.startTime = integerIn<std::uint64_t>(*value, "startTime");
  written.record.original = modeFrom(value->find("original"));
  written.record.set = modeFrom(value->find("set"));
  const JsonValue* moves = value->find("moves");
  if (moves == nullptr || moves->array() == nullptr) return written;
  for (const JsonValue& each : *moves->array()) {
    written.record.moves.push_back({integerIn<std::uint32_t>(each, "controller"),
                                    integerIn<int>(each, "fromX"), integerIn<int>(each, "fromY"),
                                    integerIn<int>(each, "toX"), integerIn<int>(each, "toY")});
  }
  return written;
}

std::optional<ModeRecord> ModeRecords::readAbandoned(const std::string& output) const {
  const auto written = read(output);
  if (!written) return std::nullopt;
  if (!written->isOfThisBoot()) {
    remove(output);
    return std::nullopt;
  }
  if (written->isWriterRunning()) return std::nullopt;
  return written->record;
}

bool ModeRecords::isHeldByOther(const std::string& output) const {
  const auto written = read(output);
  return written && written->isOfThisBoot() && written->writer.id != getpid() && written->isWriterRunning();
}

}  // namespace kestrune::linux_platform
