#include "platform/linux/files/DesktopEntry.h"

#include <fstream>

namespace kestrune::linux_platform {
namespace {

constexpr std::size_t kLargestEntry = 1 << 16;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Takes what is in front of the next separator, or the rest.
std::string_view takePart(std::string_view& text, char separator) {
  const auto end = text.find(separator);
  const auto part = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return part;
}

std::string_view valueOf(const DesktopEntry& entry, std::string_view key) {
  const auto found = entry.find(key);
  return found == entry.end() ? std::string_view() : found->second;
}

/// What a value of type string stands for.
std::string unescaped(std::string_view value) {
  std::string text;
  for (std::size_t index = 0; index < value.size(); ++index) {
    if (value[index] != '\\' || index + 1 == value.size()) {
      text += value[index];
      continue;
    }
    switch (const char escape = value[++index]) {
      case 's':
        text += ' ';
        break;
      case 'n':
        text += '\n';
        break;
      case 't':
        text += '\t';
        break;
      case 'r':
        text += '\r';
        break;
      default:
        text += escape;
    }
  }
  return text;
}

/// Whether the two lists, one between semicolons and one between colons, share a name.
bool shareName(std::string_view listed, std::string_view desktops) {
  while (!desktops.empty()) {
    const auto desktop = takePart(desktops, ':');
    for (auto rest = listed; !desktop.empty() && !rest.empty();) {
      if (takePart(rest, ';') == desktop) return true;
    }
  }
  return false;
}

}  // namespace

DesktopEntry parseDesktopEntry(std::string_view text) {
  DesktopEntry entry;
  bool isInGroup = false;
  while (!text.empty()) {
    const auto line = trimmed(takePart(text, '\n'));
    if (line.starts_with('[')) {
      isInGroup = line == "[Desktop Entry]";
      continue;
    }
    const auto equals = line.find('=');
    if (!isInGroup || line.starts_with('#') || equals == std::string_view::npos) continue;
    entry.insert_or_assign(std::string(trimmed(line.substr(0, equals))),
                           std::string(trimmed(line.substr(equals + 1))));
  }
  return entry;
}

DesktopEntry readDesktopEntry(const std::filesystem::path& file) {
  std::error_code failure;
  if (!std::filesystem::is_regular_file(file, failure)) return {};
  std::string text(kLargestEntry, '\0');
  std::ifstream stream(file, std::ios::binary);
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(stream.gcount()));
  return parseDesktopEntry(text);
}

bool isSwitchedOff(const DesktopEntry& entry, std::string_view currentDesktop) {
  if (valueOf(entry, "Hidden") == "true") return true;
  // X-GNOME-Autostart-enabled, and those of the desktops that come from it.
  for (const auto& [key, value] : entry) {
    if (key.starts_with("X-") && key.ends_with("-Autostart-enabled") && value == "false") return true;
  }
  if (currentDesktop.empty()) return false;
  if (entry.contains("OnlyShowIn") && !shareName(valueOf(entry, "OnlyShowIn"), currentDesktop)) return true;
  return shareName(valueOf(entry, "NotShowIn"), currentDesktop);
}

std::string desktopString(std::string_view text) {
  std::string value;
  for (const char character : text) {
    switch (character) {
      case '\\':
        value += "\\\\";
        break;
      case '\n':
        value += "\\n";
        break;
      case '\t':
        value += "\\t";
        break;
      case '\r':
        value += "\\r";
        break;
      default:
        value += character;
    }
  }
  return value;
}

std::string desktopCommand(std::string_view program) {
  std::string argument = "\"";
  for (const char character : program) {
    if (std::string_view("\"`$\\").find(character) != std::string_view::npos) argument += '\\';
    argument += character;
    if (character == '%') argument += '%';  // else a field code
  }
  return desktopString(argument + "\"");
}

std::vector<std::string> desktopCommandWords(std::string_view value) {
  std::vector<std::string> words;
  bool isInWord = false;
  bool isQuoted = false;
  const std::string text = unescaped(value);
  for (std::size_t index = 0; index < text.size(); ++index) {
    const char character = text[index];
    if (character == ' ' && !isQuoted) {
      isInWord = false;
      continue;
    }
    if (!isInWord) words.emplace_back();
    isInWord = true;
    if (character == '"') {
      isQuoted = !isQuoted;
    } else if (character == '\\' && isQuoted && index + 1 < text.size()) {
      words.back() += text[++index];
    } else {
      words.back() += character;
    }
  }
  return isQuoted ? std::vector<std::string>() : words;
}

}  // namespace kestrune::linux_platform
